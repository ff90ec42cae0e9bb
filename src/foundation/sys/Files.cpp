// POSIX implementation of the file-system calls of cache sequences.
#include "foundation/sys/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "foundation/sys/FileAccess.h"

namespace vaporix::sys {

namespace {

// A path the system can take: no embedded NUL and not too long.
bool isUsablePath(const std::string& path) {
    if (path.empty() || path.size() >= MAX_PATH_LENGTH || path.find('\0') != std::string::npos) {
        errno = path.empty() ? ENOENT : ENAMETOOLONG;
        return false;
    }
    return true;
}

// Copies the bytes of `in` to `out`: in the kernel where it can, else through a buffer.
bool copyBytes(int in, int out) {
    for (;;) {
        const ssize_t n = copySome(in, out, size_t(1) << 20);
        if (n == 0) return true;
        if (n > 0) continue;
        if (errno == EINTR) continue;
        if (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP) break;
        return false;
    }
    std::vector<char> buffer(size_t(1) << 20);
    for (;;) {
        const ssize_t n = readSome(in, buffer.data(), buffer.size());
        if (n == 0) return true;
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (!writeAll(out, buffer.data(), static_cast<size_t>(n))) return false;
    }
}

// A fresh temporary file beside `to`, hidden and named so that a user can tell it from a
// finished file.
int openTemporaryBeside(const std::string& to, std::string& temp) {
    static std::atomic<unsigned> counter{0};
    const size_t slash = to.rfind('/');
    const std::string folder = slash == std::string::npos ? std::string() : to.substr(0, slash + 1);
    for (int attempt = 0; attempt < 100; ++attempt) {
        temp = folder + ".vaporix-copy-" + std::to_string(::getpid()) + "_" +
               std::to_string(counter.fetch_add(1));
        const int fd = openFile(temp, O_WRONLY | O_CREAT | O_EXCL, 0600);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    return -1;
}

}  // namespace

bool listFolder(const std::string& folder, std::vector<FolderEntry>& entries) {
    entries.clear();
    if (!isUsablePath(folder.empty() ? std::string(".") : folder)) return false;
    if (!readFolder(folder, entries)) return false;
    // Name order (bytes), so that every file system gives the same answer.
    std::sort(entries.begin(), entries.end(),
              [](const FolderEntry& a, const FolderEntry& b) { return a.name < b.name; });
    return true;
}

bool isFile(const std::string& path) {
    struct stat st;
    return isUsablePath(path) && ::stat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

bool isFolder(const std::string& path) {
    struct stat st;
    return isUsablePath(path) && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int64_t fileSize(const std::string& path) {
    struct stat st;
    if (!isUsablePath(path) || ::stat(path.c_str(), &st) != 0 || S_ISDIR(st.st_mode)) return -1;
    return static_cast<int64_t>(st.st_size);
}

bool getFileId(const std::string& path, FileId& id) {
    struct stat st;
    if (!isUsablePath(path) || ::stat(path.c_str(), &st) != 0) return false;
    id.device = static_cast<uint64_t>(st.st_dev);
    id.inode = static_cast<uint64_t>(st.st_ino);
    return true;
}

bool deleteFile(const std::string& path) {
    return isUsablePath(path) && removePath(path);
}

bool copyFile(const std::string& from, const std::string& to, bool overwrite) {
    if (!isUsablePath(from) || !isUsablePath(to)) return false;
    const int in = openFile(from, O_RDONLY);
    if (in < 0) return false;
    struct stat st;
    if (::fstat(in, &st) != 0 || S_ISDIR(st.st_mode)) {
        const int err = S_ISDIR(st.st_mode) ? EISDIR : errno;
        closeFile(in);
        errno = err;
        return false;
    }
    if (!overwrite && ::access(to.c_str(), F_OK) == 0) {
        closeFile(in);
        errno = EEXIST;
        return false;
    }

    // Write beside the target under a hidden name, sync, then rename into place.
    std::string temp;
    const int out = openTemporaryBeside(to, temp);
    if (out < 0) {
        const int err = errno;
        closeFile(in);
        errno = err;
        return false;
    }
    bool ok = copyBytes(in, out) && ::fchmod(out, st.st_mode & 07777) == 0 && syncFile(out);
    int err = ok ? 0 : errno;
    if (!closeFile(out) && ok) {
        ok = false;
        err = errno;
    }
    closeFile(in);
    if (ok && !(overwrite ? renamePath(temp, to) : renameNoReplace(temp, to))) {
        ok = false;
        err = errno;
    }
    if (!ok) {
        ::unlink(temp.c_str());
        errno = err;
    }
    return ok;
}

bool moveFile(const std::string& from, const std::string& to, bool overwrite) {
    if (!isUsablePath(from) || !isUsablePath(to)) return false;
    const bool renamed = overwrite ? renamePath(from, to) : renameNoReplace(from, to);
    if (renamed) return true;
    if (errno != EXDEV) return false;
    // Another file system: copy, then delete; undo the copy when the source can't go.
    if (!copyFile(from, to, overwrite)) return false;
    if (removePath(from)) return true;
    const int err = errno;
    ::unlink(to.c_str());
    errno = err;
    return false;
}

MakeFolderResult makeFolder(const std::string& path) {
    if (path.find('\0') != std::string::npos || path.size() >= MAX_PATH_LENGTH) {
        errno = ENAMETOOLONG;
        return MakeFolderResult::InvalidName;
    }
    if (path.empty()) {
        errno = ENOENT;
        return MakeFolderResult::Failed;
    }
    if (::mkdir(path.c_str(), 0777) == 0) return MakeFolderResult::Created;
    if (errno == EEXIST) return MakeFolderResult::Exists;
    if (errno == ENAMETOOLONG) return MakeFolderResult::InvalidName;
    return MakeFolderResult::Failed;
}

bool removeEmptyFolder(const std::string& path) {
    return isUsablePath(path) && ::rmdir(path.c_str()) == 0;
}

}  // namespace vaporix::sys
