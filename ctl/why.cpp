// SPDX-License-Identifier: Apache-2.0
//
// What a client gets, by which rule, and what to do about it. With a file the daemon's own function
// is asked here, so that both say the same.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "backend/access_explanation.h"
#include "base/log.h"
#include "ctl/ask.h"
#include "ctl/output.h"

namespace oxel::ctl {

using nlohmann::json;

namespace {

bool IsTrue(const json& body, const char* member) {
    const auto found = body.find(member);
    return found != body.end() && found->is_boolean() && found->get<bool>();
}

void PrintShare(const json& body) {
    const auto share = body.find("share");
    if (share == body.end() || !share->is_object()) return;
    Rows rows = {
        {"share", Shown(*share, "path") + " (id " + Shown(*share, "id") + ", line " +
                      Shown(*share, "line") + " of " + Shown(body, "file") + ")"},
        {"directory", Shown(*share, "directory")},
    };
    // Whose ids are another's has no groups.
    const std::string mode = Shown(body.value("squash", json::object()), "mode");
    if (mode == "root_squash" || mode == "no_root_squash")
        rows.push_back({"groups", IsTrue(body, "serverGroups")
                                      ? "those that the server knows of the user (manage_gids)"
                                      : "the user's first one"});
    printf("\n");
    PrintTable(rows);
}

void PrintRules(const json& body) {
    std::vector<std::vector<std::string>> rows;
    for (const json& rule : Listed(body, "rules"))
        rows.push_back({Shown(rule, "client"), OptionsText(rule), Shown(rule, "line"),
                        IsTrue(rule, "decides") ? "yes" : "", Shown(rule, "why")});
    if (rows.empty()) return;
    printf("\n");
    PrintColumns({"client", "options", "line", "decides", "why"}, rows);
}

void Print(const json& body) {
    const bool allowed = IsTrue(body, "allowed");
    printf("%s: %s\n", allowed ? "allowed" : "refused", Shown(body, "reason").c_str());
    PrintShare(body);
    PrintRules(body);
    if (!allowed) printf("\nWhat to do: %s.\n", Shown(body, "remedy").c_str());
    const auto notes = body.find("notes");
    if (notes == body.end() || !notes->is_array()) return;
    for (const json& note : *notes)
        if (note.is_string()) printf("\n%s\n", EscapeControl(note.get<std::string>()).c_str());
}

// What the shares of a file say. Lines with errors count for nothing here as for the daemon.
ExitCode AskFile(const Settings& settings, const AccessQuestion& question, json* body) {
    const std::string& file = settings.why.file;
    // The reader takes a file that is not there for one without shares.
    struct stat st;
    if (stat(file.c_str(), &st) != 0)
        return Fail(settings, kUsage, EscapeControl(file) + ": " + strerror(errno));
    ExportsFile exports = ReadExportsFile(file);
    *body = AccessExplanationJson(
        ExplainAccess({std::move(exports.shares), file, std::nullopt}, question));
    json errors = json::array();
    for (const ExportsError& error : exports.errors)
        errors.push_back(ErrorEntry(error.file, error.line, error.reason));
    (*body)["errors"] = std::move(errors);
    return kDone;
}

}  // namespace

ExitCode Why(const Settings& settings) {
    const auto& asked = settings.why;
    AccessQuestion question;
    std::string error;
    if (!ParseAccessQuestion(asked.address, asked.path, asked.port, asked.uid, &question, &error))
        return Fail(settings, kUsage, error);
    json body;
    ExitCode code = kDone;
    if (!asked.file.empty()) {
        code = AskFile(settings, question, &body);
    } else {
        json request = {{"verb", "why"}, {"address", asked.address}, {"path", asked.path}};
        if (asked.port) request["port"] = *asked.port;
        if (asked.uid) request["uid"] = *asked.uid;
        code = Request(settings, request, kAnswerMs, &body);
    }
    if (code != kDone) return code;
    if (settings.json) {
        PrintJson(body);
    } else {
        Print(body);
    }
    (void)fflush(stdout);
    for (const json& left : Listed(body, "errors"))
        (void)fprintf(stderr, "oxelctl: %s (the line is left out)\n", ErrorLine(left).c_str());
    return IsTrue(body, "allowed") ? kDone : kRefused;
}

}  // namespace oxel::ctl
