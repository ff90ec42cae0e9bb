// POSIX implementation of the file-system calls of cache sequences.
#include "foundation/sys/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

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

struct FdCloser {
    int fd;
    ~FdCloser() {
        if (fd >= 0) ::close(fd);
    }
};

// Writes all of `data`, retrying on EINTR and short writes.
bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Copies the bytes of `in` to `out`: in the kernel where it can, else through a buffer.
bool copyBytes(int in, int out) {
    for (;;) {
        const ssize_t n = ::copy_file_range(in, nullptr, out, nullptr, size_t(1) << 30, 0);
        if (n == 0) return true;
        if (n > 0) continue;
        if (errno == EINTR) continue;
        if (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP) break;
        return false;
    }
    std::vector<char> buffer(size_t(1) << 20);
    for (;;) {
        const ssize_t n = ::read(in, buffer.data(), buffer.size());
        if (n == 0) return true;
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (!writeAll(out, buffer.data(), static_cast<size_t>(n))) return false;
    }
}

// Renames without replacing an existing target. Falls back to a check and a rename on file
// systems that don't offer the atomic form.
bool renameNoReplace(const std::string& from, const std::string& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP) return false;
    struct stat st;
    if (::lstat(to.c_str(), &st) == 0) {
        errno = EEXIST;
        return false;
    }
    return ::rename(from.c_str(), to.c_str()) == 0;
}

}  // namespace

bool listFolder(const std::string& folder, std::vector<FolderEntry>& entries) {
    entries.clear();
    const std::string dirPath = folder.empty() ? std::string(".") : folder;
    if (!isUsablePath(dirPath)) return false;
    DIR* dir = ::opendir(dirPath.c_str());
    if (!dir) return false;
    const int dirFd = ::dirfd(dir);
    while (dirent* e = ::readdir(dir)) {
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
        FolderEntry entry;
        entry.name = e->d_name;
        if (e->d_type == DT_DIR) {
            entry.isFolder = true;
        } else if (e->d_type == DT_LNK || e->d_type == DT_UNKNOWN) {
            // The entry type doesn't say where a link leads; ask the file system.
            struct stat st;
            entry.isFolder = ::fstatat(dirFd, e->d_name, &st, 0) == 0 && S_ISDIR(st.st_mode);
        }
        entries.push_back(std::move(entry));
    }
    ::closedir(dir);
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
    return isUsablePath(path) && ::unlink(path.c_str()) == 0;
}

bool copyFile(const std::string& from, const std::string& to, bool overwrite) {
    if (!isUsablePath(from) || !isUsablePath(to)) return false;
    const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) return false;
    FdCloser inCloser{in};
    struct stat st;
    if (::fstat(in, &st) != 0) return false;
    if (S_ISDIR(st.st_mode)) {
        errno = EISDIR;
        return false;
    }
    if (!overwrite && ::access(to.c_str(), F_OK) == 0) {
        errno = EEXIST;
        return false;
    }

    // Write beside the target under a short hidden name, then rename into place.
    const size_t slash = to.rfind('/');
    std::string temp = (slash == std::string::npos ? std::string() : to.substr(0, slash + 1)) +
                       ".vaporix-copy-XXXXXX";
    const int out = ::mkostemp(temp.data(), O_CLOEXEC);
    if (out < 0) return false;
    bool ok = copyBytes(in, out) && ::fchmod(out, st.st_mode & 07777) == 0;
    int err = ok ? 0 : errno;
    if (::close(out) != 0 && ok) {
        ok = false;
        err = errno;
    }
    if (ok && !(overwrite ? ::rename(temp.c_str(), to.c_str()) == 0 : renameNoReplace(temp, to))) {
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
    const bool renamed =
        overwrite ? ::rename(from.c_str(), to.c_str()) == 0 : renameNoReplace(from, to);
    if (renamed) return true;
    if (errno != EXDEV) return false;
    // Another file system: copy, then delete; undo the copy when the source can't go.
    if (!copyFile(from, to, overwrite)) return false;
    if (::unlink(from.c_str()) == 0) return true;
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
