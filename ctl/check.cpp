// SPDX-License-Identifier: Apache-2.0
//
// Reads the two files that people edit with the daemon's own readers, so that what is said here is
// what the daemon would say.
#include <cstdio>
#include <vector>

#include "backend/exports_file.h"
#include "base/log.h"
#include "base/store.h"
#include "ctl/ask.h"

namespace oxel::ctl {

using nlohmann::json;

static json ErrorEntry(const std::string& file, int line, const std::string& reason) {
    return {{"file", file}, {"line", line}, {"reason", reason}};
}

static std::string Counted(size_t count, const char* one, const char* many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

ExitCode Check(const Settings& settings) {
    const InstancePaths paths(settings.instance);
    std::vector<StoreError> storeErrors;
    const StoreNumbers numbers = ReadStoreFile(paths.conf, &storeErrors);
    const ExportsFile exports = ReadExportsFile(paths.exports);

    json errors = json::array();
    for (const StoreError& error : storeErrors)
        errors.push_back(ErrorEntry(error.file, error.line, error.reason));
    for (const ExportsError& error : exports.errors)
        errors.push_back(ErrorEntry(error.file, error.line, error.reason));
    const json answer = {
        {"errors", errors}, {"settings", numbers.size()}, {"shares", exports.shares.size()}};

    if (!errors.empty()) {
        // The errors are the answer that was asked for.
        if (!settings.json)
            for (const json& error : errors) printf("%s\n", ErrorLine(error).c_str());
        (void)fflush(stdout);
        return Fail(settings, kRefused, Counted(errors.size(), "error", "errors"), answer);
    }
    if (settings.json) {
        PrintJson(answer);
    } else {
        printf("ok: %s in %s, %s in %s\n",
               Counted(exports.shares.size(), "share", "shares").c_str(),
               EscapeControl(paths.exports).c_str(),
               Counted(numbers.size(), "setting", "settings").c_str(),
               EscapeControl(paths.conf).c_str());
    }
    return kDone;
}

}  // namespace oxel::ctl
