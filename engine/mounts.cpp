#include "mounts.h"

#include "names.h"
#include "posix.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string_view>

bool TavroMount::HoldsFiles() const {
    static constexpr std::string_view others[] = {
        "autofs",     "binfmt_misc", "bpf",      "cgroup",   "cgroup2", "configfs",
        "debugfs",    "devpts",      "devtmpfs", "efivarfs", "fusectl", "hugetlbfs",
        "mqueue",     "nsfs",        "proc",     "pstore",   "ramfs",   "rpc_pipefs",
        "securityfs", "selinuxfs",   "squashfs", "sysfs",    "tracefs", "fuse.gvfsd-fuse",
        "fuse.portal"};
    return std::find(std::begin(others), std::end(others), Type) == std::end(others);
}

namespace {

/// Blanks and the like are a backslash and three octal digits.
std::string Unescaped(const std::string& Text) {
    std::string path;
    for (std::size_t at = 0; at < Text.size(); ++at) {
        if (Text[at] != '\\' || at + 3 >= Text.size()) {
            path += Text[at];
            continue;
        }
        const int value = (Text[at + 1] - '0') * 64 + (Text[at + 2] - '0') * 8 + Text[at + 3] - '0';
        path += static_cast<char>(value);
        at += 3;
    }
    return path;
}

/// A line has the number in its first field, the path in its fifth, and after a dash the type.
TavroMount MountOf(const std::string& Line) {
    TavroMount mount;
    mount.Number = std::strtoull(Line.c_str(), nullptr, 10);
    std::size_t at = 0;
    for (int field = 1; field < 5; ++field) {
        at = std::min(Line.find(' ', at), Line.size() - 1) + 1;
    }
    mount.Point = Unescaped(Line.substr(at, Line.find(' ', at) - at));
    const std::size_t dash = std::min(Line.find(" - ", at), Line.size() - 1) + 3;
    if (dash < Line.size()) {
        mount.Type = Line.substr(dash, Line.find(' ', dash) - dash);
    }
    return mount;
}

} // namespace

std::vector<TavroMount> TavroReadMounts() {
    std::vector<TavroMount> mounts;
    TavroDescriptor file;
    std::string lines;
    if (TavroOpenFile("/proc/self/mountinfo", file) != 0 ||
        TavroReadFile(file.Number(), std::numeric_limits<std::size_t>::max(), lines) != 0) {
        return mounts;
    }
    for (std::size_t at = 0, end = 0; at < lines.size(); at = end + 1) {
        end = std::min(lines.find('\n', at), lines.size());
        if (end != at) {
            mounts.push_back(MountOf(lines.substr(at, end - at)));
        }
    }
    return mounts;
}

std::vector<std::string> TavroFindSilentMounts() {
    std::vector<std::string> points;
    std::vector<std::string> silent;
    for (TavroMount& mount : TavroReadMounts()) {
        const bool bTwice = std::find(points.begin(), points.end(), mount.Point) != points.end();
        if (mount.HoldsFiles() && !bTwice) {
            points.push_back(std::move(mount.Point));
        }
    }
    const std::vector<TavroPresence> answers = TavroLookInTime(points, TavroPatience);
    for (std::size_t i = 0; i < points.size(); ++i) {
        if (answers[i] == TavroPresence::Silent) {
            silent.push_back(std::move(points[i]));
        }
    }
    return silent;
}

std::string TavroFindAbove(const std::vector<std::string>& Points, const std::string& Path) {
    const auto above = std::find_if(Points.begin(), Points.end(), [&](const std::string& point) {
        return point == Path || TavroIsBelow(point, Path);
    });
    return above == Points.end() ? "" : *above;
}
