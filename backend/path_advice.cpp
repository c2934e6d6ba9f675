// SPDX-License-Identifier: Apache-2.0
//
// What somebody may have meant who mounts a path that is no share.
#include <algorithm>
#include <string_view>

#include "backend/access_explanation.h"
#include "base/nearest_word.h"

namespace oxel {

// Whether `path` lies below `directory`; what it is there goes into *rest.
static bool IsBelow(const std::string& path, const std::string& directory, std::string* rest) {
    if (directory == "/") {
        *rest = path.substr(1);
        return path != "/";
    }
    if (path.size() <= directory.size() || path[directory.size()] != '/' ||
        path.compare(0, directory.size(), directory) != 0)
        return false;
    *rest = path.substr(directory.size() + 1);
    return true;
}

// The path without "." and "..".
static std::string WithoutDots(const std::string& path) {
    std::vector<std::string> parts;
    for (size_t at = 0; at < path.size();) {
        const size_t end = std::min(path.find('/', at), path.size());
        std::string part = path.substr(at, end - at);
        at = end + 1;
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(std::move(part));
        }
    }
    std::string plain;
    for (const std::string& part : parts) plain += "/" + part;
    return plain.empty() ? "/" : plain;
}

static std::string SmallLetters(std::string text) {
    for (char& byte : text)
        if (byte >= 'A' && byte <= 'Z') byte = static_cast<char>(byte - 'A' + 'a');
    return text;
}

// The share that reaches furthest into the path, by its own name or by its directory's.
static const SharePlace* Above(const std::string& path, const std::vector<SharePlace>& shares,
                               std::string SharePlace::*name, std::string* rest) {
    const SharePlace* longest = nullptr;
    for (const SharePlace& share : shares) {
        std::string below;
        if ((share.*name).empty() || !IsBelow(path, share.*name, &below)) continue;
        if (longest != nullptr && (longest->*name).size() >= (share.*name).size()) continue;
        longest = &share;
        *rest = std::move(below);
    }
    return longest;
}

// The shares below `path`: the first few, then their number.
static std::string Below(const std::string& path, const std::vector<SharePlace>& shares) {
    static constexpr size_t kNamed = 3;
    size_t count = 0;
    std::string text, rest;
    for (const SharePlace& share : shares) {
        if (!IsBelow(share.path, path, &rest)) continue;
        if (++count <= kNamed) text += (text.empty() ? "" : ", ") + share.path;
    }
    if (count > kNamed) text += " and " + std::to_string(count - kNamed) + " more";
    return text;
}

PathAdvice AdviseOnPath(const std::string& requested, const std::vector<SharePlace>& shares,
                        const std::string& exportsFile) {
    if (shares.empty())
        return {"there are no shares", "write one into " + exportsFile + " and run oxelctl reload"};
    std::string rest;
    const std::string path = WithoutDots(requested);
    const std::string no = requested + " is not a share";
    for (const SharePlace& share : shares)
        if (SmallLetters(WithoutDots(share.path)) == SmallLetters(path))
            return {no + ": share " + share.path + " is spelled otherwise",
                    "mount " + share.path + " instead"};
    // The root's share is above everything, and hardly what was meant.
    if (const SharePlace* share = Above(path, shares, &SharePlace::path, &rest);
        share != nullptr && share->path != "/")
        return {no + ", it lies below share " + share->path,
                "mount " + share->path + " instead; there it is " + rest};
    for (const SharePlace& share : shares)
        if (share.directory == path)
            return {no + ", it is the directory that share " + share.path + " serves",
                    "mount " + share.path + " instead"};
    if (const SharePlace* share = Above(path, shares, &SharePlace::directory, &rest);
        share != nullptr && share->directory != "/")
        return {no + ", it lies in the directory that share " + share->path + " serves",
                "mount " + share->path + " instead; there it is " + rest};
    if (const std::string below = Below(path, shares); !below.empty())
        return {no + ", it lies above " + below, "mount what lies below it: " + below};
    std::vector<std::string> names;
    names.reserve(shares.size());
    for (const SharePlace& share : shares) names.push_back(share.path);
    if (const std::string nearest = NearestWord(path, names); !nearest.empty())
        return {no + "; the nearest is " + nearest, "mount " + nearest + " if that was meant"};
    for (const SharePlace& share : shares)
        if (share.path == "/" && IsBelow(path, "/", &rest))
            return {no + ", it lies below share /", "mount / instead; there it is " + rest};
    return {no, "mount one of the shares that oxelctl exports shows, or write " + requested +
                    " into " + exportsFile + " and run oxelctl reload"};
}

}  // namespace oxel
