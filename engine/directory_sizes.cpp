#include "directory_sizes.h"

#include "names.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <fcntl.h>
#include <map>
#include <optional>

namespace {

constexpr const char* fileName = "directorysizes";

/// Reads a number and the blank after it.
template <typename Number> bool TakeNumber(const char*& IoAt, const char* End, Number& OutNumber) {
    const auto [at, error] = std::from_chars(IoAt, End, OutNumber);
    const bool bRead = error == std::errc() && at != End && *at == ' ';
    IoAt = bRead ? at + 1 : IoAt;
    return bRead;
}

/// "SIZE TIME NAME"
std::optional<TavroDirectorySize> ParseLine(const std::string& Line) {
    TavroDirectorySize size;
    const char* at = Line.data();
    const char* const end = at + Line.size();
    if (!TakeNumber(at, end, size.DiskBytes) || !TakeNumber(at, end, size.RecordTime)) {
        return std::nullopt;
    }
    size.Name = TavroPercentDecode({at, end});
    return TavroIsPlainName(size.Name) ? std::optional(size) : std::nullopt;
}

std::string LineOf(const TavroDirectorySize& Size) {
    return std::to_string(Size.DiskBytes) + ' ' + std::to_string(Size.RecordTime) + ' ' +
           TavroPercentEncode(Size.Name) + '\n';
}

/// @return 0, ENOENT when there is none, or the error number; a file of any other kind is EINVAL.
int ReadCache(int Root, std::string& OutBytes) {
    constexpr std::size_t limit = std::size_t{16} << 20U;
    TavroDescriptor file;
    struct stat status = {};
    int error = TavroOpenAt(Root, fileName, O_RDONLY | O_NONBLOCK, file);
    error = error != 0 ? error : TavroStat(file.Number(), status);
    error = error == 0 && !S_ISREG(status.st_mode) ? EINVAL : error;
    return error != 0 ? error : TavroReadFile(file.Number(), limit, OutBytes);
}

/// Puts a new file in the place of the old one, or removes it when nothing is left.
void WriteCache(int Root, const std::string& Bytes) {
    if (Bytes.empty()) {
        TavroUnlinkAt(Root, fileName);
        return;
    }
    const char* const staged = "directorysizes.tavro";
    TavroDescriptor file;
    struct stat status = {};
    if (TavroOpenAt(Root, staged, O_WRONLY | O_CREAT | O_EXCL, file, 0600) != 0) {
        if (TavroStatAt(Root, staged, status) == 0 &&
            status.st_mtim.tv_sec + 60 < std::time(nullptr)) {
            TavroUnlinkAt(Root, staged); // of a process that was killed
        }
        return;
    }
    int error = TavroWriteAt(file.Number(), Bytes.data(), Bytes.size(), 0);
    const int closing = file.Close();
    error = error != 0 ? error : closing;
    if (error != 0 || TavroRename(Root, staged, Root, fileName) != 0) {
        TavroUnlinkAt(Root, staged);
    }
}

/// The directory that holds the trash's own: of a volume the very one that was entered.
int OpenRoot(const TavroOpenTrash& Trash, TavroDescriptor& OutRoot) {
    return Trash.Folders.bVolume ? TavroOpenDirectoryAt(Trash.Info.Number(), "..", OutRoot)
                                 : TavroOpenDirectory(Trash.Folders.Root, OutRoot);
}

} // namespace

void TavroKeepDirectorySizes(const TavroOpenTrash& Trash,
                             const std::vector<TavroDirectorySize>& Measured) {
    TavroDescriptor root;
    std::string old;
    const int opened = Trash.Info.IsOpen() ? OpenRoot(Trash, root) : ENOENT;
    const int read = opened != 0 ? opened : ReadCache(root.Number(), old);
    if (read != 0 && (read != ENOENT || opened != 0 || Measured.empty())) {
        return;
    }
    std::map<std::string, TavroDirectorySize> sizes; // in an order that stays
    for (std::size_t at = 0, end = 0; at < old.size(); at = end + 1) {
        end = std::min(old.find('\n', at), old.size());
        struct stat status = {};
        std::optional<TavroDirectorySize> size = ParseLine(old.substr(at, end - at));
        if (size && TavroStatAt(Trash.Files.Number(), size->Name.c_str(), status) == 0 &&
            S_ISDIR(status.st_mode)) {
            sizes[size->Name] = std::move(*size);
        }
    }
    for (const TavroDirectorySize& size : Measured) {
        sizes[size.Name] = size;
    }
    std::string bytes;
    for (const auto& [name, size] : sizes) {
        bytes += LineOf(size);
    }
    if (bytes != old) {
        WriteCache(root.Number(), bytes);
    }
}
