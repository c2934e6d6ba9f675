// SPDX-License-Identifier: Apache-2.0
//
// The text of registry.json, and putting it on disk.
#include "backend/export_registry.h"

#include <fcntl.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <nlohmann/json.hpp>

#include "base/unique_fd.h"

using nlohmann::json;

namespace oxel {

// 9999-12-31T23:59:59Z, the last time that the format can hold.
static constexpr long kTimeMax = 253402300799;

// The form of the log.
std::string RegistryTimeText(long seconds) {
    if (seconds <= 0) return "";
    time_t value = std::min(seconds, kTimeMax);
    struct tm parts;
    char text[64];
    gmtime_r(&value, &parts);
    (void)strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.000000Z", &parts);
    return text;
}

static json FormatTime(long seconds) {
    if (seconds <= 0) return nullptr;
    return RegistryTimeText(seconds);
}

static bool ParseTime(const json& value, long* seconds) {
    if (value.is_null()) {
        *seconds = 0;
        return true;
    }
    if (!value.is_string()) return false;
    const std::string& text = value.get_ref<const std::string&>();
    struct tm parts = {};
    const char* rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (!rest) return false;
    if (*rest == '.') {
        ++rest;
        while (*rest >= '0' && *rest <= '9') ++rest;
    }
    if (rest[0] != 'Z' || rest[1] != '\0') return false;
    *seconds = std::clamp<long>(timegm(&parts), 0, kTimeMax);
    return true;
}

// The length of the UTF-8 sequence at `at`, 0 when there is none (RFC 3629).
static size_t Utf8Length(const std::string& text, size_t at) {
    auto byte = [&](size_t i) -> unsigned {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u;
    };
    unsigned first = byte(at);
    if (first < 0x80) return 1;
    size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4) return 0;
    for (size_t i = 1; i < length; ++i)
        if ((byte(at + i) & 0xc0) != 0x80) return 0;
    // Overlong forms, surrogates, and what lies beyond U+10FFFF.
    unsigned second = byte(at + 1);
    if ((first == 0xe0 && second < 0xa0) || (first == 0xed && second >= 0xa0) ||
        (first == 0xf0 && second < 0x90) || (first == 0xf4 && second >= 0x90))
        return 0;
    return length;
}

std::string RegistryPathText(const std::string& path) {
    std::string out;
    for (size_t i = 0; i < path.size();) {
        size_t length = Utf8Length(path, i);
        unsigned byte = static_cast<unsigned char>(path[i]);
        if (length == 0 || byte < 0x20 || byte == 0x7f || byte == '\\') {
            char escape[8];
            (void)snprintf(escape, sizeof escape, "\\%03o", byte);
            out += escape;
            ++i;
        } else {
            out.append(path, i, length);
            i += length;
        }
    }
    return out;
}

std::string FormatRegistry(const ShareRecords& records) {
    json shares = json::array();
    for (const auto& [id, record] : records) {
        json mounts = json::array();
        for (const auto& [client, when] : record.mounts)
            mounts.push_back({{"client", client}, {"lastMount", FormatTime(when)}});
        shares.push_back({{"id", id},
                          {"path", record.path},
                          {"lastAccess", FormatTime(record.lastAccess)},
                          {"mounts", std::move(mounts)}});
    }
    json whole = {{"version", 1}, {"shares", std::move(shares)}};
    // Replacing is for a client text that is no UTF-8: odd in the file, but the file is written.
    return whole.dump(1, '\t', false, json::error_handler_t::replace) + "\n";
}

static bool ParseMounts(const json& list, std::map<std::string, long>* mounts) {
    if (!list.is_array()) return false;
    for (const json& entry : list) {
        if (!entry.is_object()) return false;
        auto client = entry.find("client"), when = entry.find("lastMount");
        long seconds = 0;
        if (client == entry.end() || !client->is_string() || when == entry.end() ||
            !ParseTime(*when, &seconds))
            return false;
        (*mounts)[client->get<std::string>()] = seconds;
    }
    return true;
}

bool ParseRegistry(const std::string& text, ShareRecords* records) {
    json whole = json::parse(text, nullptr, false);
    if (!whole.is_object()) return false;
    auto version = whole.find("version"), shares = whole.find("shares");
    if (version == whole.end() || *version != 1 || shares == whole.end() || !shares->is_array())
        return false;
    ShareRecords read;
    for (const json& entry : *shares) {
        if (!entry.is_object()) return false;
        auto id = entry.find("id"), path = entry.find("path"), access = entry.find("lastAccess"),
             mounts = entry.find("mounts");
        if (id == entry.end() || !id->is_number_unsigned() || id->get<uint64_t>() > UINT32_MAX)
            return false;
        if (path == entry.end() || !path->is_string() || access == entry.end() ||
            mounts == entry.end())
            return false;
        ShareRecord record;
        record.path = path->get<std::string>();
        if (!ParseTime(*access, &record.lastAccess) || !ParseMounts(*mounts, &record.mounts))
            return false;
        read[id->get<unsigned int>()] = std::move(record);
    }
    *records = std::move(read);
    return true;
}

static bool WriteAll(int fd, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        ssize_t count = write(fd, text.data() + done, text.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        done += static_cast<size_t>(count);
    }
    return true;
}

static bool SyncDirectoryOf(const std::string& file) {
    size_t slash = file.rfind('/');
    std::string directory = slash == std::string::npos ? "." : file.substr(0, slash + 1);
    UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd) return false;
    // Some file systems have nothing to sync in a directory and say so.
    return fsync(fd.Get()) == 0 || errno == EINVAL;
}

std::string TemporaryOf(const std::string& file) {
    return file + ".tmp";
}

bool ReplaceFileDurably(const std::string& file, const std::string& text) {
    const std::string temporary = TemporaryOf(file);
    UniqueFd fd(
        open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd) return false;
    if (!WriteAll(fd.Get(), text) || fsync(fd.Get()) != 0 ||
        rename(temporary.c_str(), file.c_str()) != 0) {
        int error = errno;
        unlink(temporary.c_str());
        errno = error;
        return false;
    }
    return SyncDirectoryOf(file);
}

}  // namespace oxel
