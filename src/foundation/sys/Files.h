// File-system calls behind cache sequences: folder listing, delete, move, copy, make folder.
//
// Every call is silent: a failure is a false (or -1) result with `errno` left set for a caller
// that wants to say why; nothing is logged or thrown. Paths are UTF-8 byte strings with `/`.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vaporix::sys {

/// Paths this long or longer are refused (the system's PATH_MAX, NUL included).
constexpr size_t MAX_PATH_LENGTH = 4096;

struct FolderEntry {
    std::string name;       ///< name inside the folder, without the folder
    bool isFolder = false;  ///< a folder, or a link to one
};

/// Lists `folder` ("" for the current folder) in name order (bytes), without "." and
/// "..". False (and no entries) when the folder is missing or can't be read.
bool listFolder(const std::string& folder, std::vector<FolderEntry>& entries);

/// True when `path` exists and is not a folder (links are followed).
bool isFile(const std::string& path);
/// True when `path` is a folder (links are followed).
bool isFolder(const std::string& path);
/// Size in bytes of a file, or -1.
int64_t fileSize(const std::string& path);
/// What makes a file itself whatever name it is reached by.
struct FileId {
    uint64_t device = 0;
    uint64_t inode = 0;
    bool operator<(const FileId& o) const {
        return device != o.device ? device < o.device : inode < o.inode;
    }
    bool operator==(const FileId& o) const { return device == o.device && inode == o.inode; }
};
/// The identity of an existing file or folder (links are followed); false when there is none.
bool getFileId(const std::string& path, FileId& id);

/// Deletes a file (never a folder).
bool deleteFile(const std::string& path);

/// Copies a file's bytes and permission bits. The copy is written beside `to` under a temporary
/// name and renamed into place, so `to` is never left half written. Without `overwrite` an
/// existing `to` makes it fail.
bool copyFile(const std::string& from, const std::string& to, bool overwrite);

/// Moves a file: a rename on the same file system, else a copy and a delete (when the delete
/// fails the copy is removed again, so the file ends up in exactly one place). Without
/// `overwrite` an existing `to` makes it fail.
bool moveFile(const std::string& from, const std::string& to, bool overwrite);

enum class MakeFolderResult { Created, Exists, InvalidName, Failed };

/// Makes one folder (its parent must exist). `Exists` when something of that name is there.
MakeFolderResult makeFolder(const std::string& path);

/// Removes a folder only when it is empty.
bool removeEmptyFolder(const std::string& path);

}  // namespace vaporix::sys
