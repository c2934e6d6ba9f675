// SPDX-License-Identifier: Apache-2.0
//
// Reads the two files that people edit with the daemon's own readers, so that what is said here is
// what the daemon would say, and asks a daemon that runs what a reload would change.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "backend/exports_file.h"
#include "base/known_settings.h"
#include "base/log.h"
#include "base/store.h"
#include "companion/PellService.h"
#include "ctl/ask.h"
#include "ctl/output.h"

namespace oxel::ctl {

using nlohmann::json;

// The daemon may have name servers to ask.
static constexpr unsigned kPreviewMs = 60000;

static std::string Counted(size_t count, const char* one, const char* many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

namespace {

// What a reload would do to the daemon that runs.
// NOLINTNEXTLINE(bugprone-exception-escape): the text's move, which throws nothing
struct Preview {
    bool running = false;
    json changes;      // null when there are none to tell
    std::string text;  // instead of a table: why there is none
};

// Adds to `errors` what the daemon finds wrong beside them.
Preview AskForPreview(const Settings& settings, json* errors) {
    Preview preview;
    const std::string instance = EscapeControl(settings.instance);
    ControlReply reply;
    if (!ControlCall(InstancePaths(settings.instance).controlSocket,
                     {{"verb", "reload"}, {"preview", true}}, kPreviewMs, &reply)) {
        const int error = errno;
        if (error == ENOENT || error == ECONNREFUSED) {
            preview.text = "No daemon runs for instance " + instance + ".";
            return preview;
        }
        preview.running = true;
        preview.text = "What a reload would change is not known: the daemon of instance " +
                       instance + " cannot be asked (" + strerror(error) + ").";
        return preview;
    }
    preview.running = true;
    if (reply.ok) {
        preview.changes = std::move(reply.body);
        return preview;
    }
    for (json& error : Listed(reply.body, "errors")) {
        bool known = false;
        for (const json& other : *errors) known = known || other == error;
        if (!known) errors->push_back(std::move(error));
    }
    preview.text = "The daemon says: " + EscapeControl(reply.error) + ".";
    return preview;
}

void Print(const json& warnings, const Preview& preview) {
    for (const json& warning : warnings) printf("%s (warning)\n", ErrorLine(warning).c_str());
    if (!preview.text.empty()) printf("%s\n", preview.text.c_str());
    if (preview.changes.is_null()) return;
    bool any = false;
    for (const char* outcome : {"added", "removed", "changed"})
        any = any || !Listed(preview.changes, outcome).empty();
    printf("%s\n", any ? "A reload would change this:" : "A reload would change nothing.");
    (void)PrintChanges(preview.changes);
}

}  // namespace

ExitCode Check(const Settings& settings) {
    const InstancePaths paths(settings.instance);
    std::vector<StoreError> storeErrors;
    std::vector<StoreLine> storeLines;
    const StoreNumbers numbers = ReadStoreFile(paths.conf, &storeErrors, nullptr, &storeLines);
    const ExportsFile exports = ReadExportsFile(paths.exports);

    json errors = json::array(), warnings = json::array();
    for (const StoreError& error : storeErrors)
        errors.push_back(ErrorEntry(error.file, error.line, error.reason));
    for (const ExportsError& error : exports.errors)
        errors.push_back(ErrorEntry(error.file, error.line, error.reason));
    // The daemon leaves such lines alone: they may be another version's.
    for (const StoreLine& line : storeLines)
        if (const std::string unknown = UnknownSetting(line.section, line.key); !unknown.empty())
            warnings.push_back(ErrorEntry(paths.conf, line.line, unknown));
    const Preview preview = AskForPreview(settings, &errors);
    const json answer = {{"errors", errors},           {"warnings", warnings},
                         {"settings", numbers.size()}, {"shares", exports.shares.size()},
                         {"running", preview.running}, {"reload", preview.changes}};

    if (!settings.json) {
        for (const json& error : errors) printf("%s\n", ErrorLine(error).c_str());
        if (errors.empty())
            printf("ok: %s in %s, %s in %s\n",
                   Counted(exports.shares.size(), "share", "shares").c_str(),
                   EscapeControl(paths.exports).c_str(),
                   Counted(numbers.size(), "setting", "settings").c_str(),
                   EscapeControl(paths.conf).c_str());
        Print(warnings, preview);
    }
    if (!errors.empty()) {
        // The errors are the answer that was asked for.
        (void)fflush(stdout);
        return Fail(settings, kRefused, Counted(errors.size(), "error", "errors"), answer);
    }
    if (settings.json) PrintJson(answer);
    return kDone;
}

}  // namespace oxel::ctl
