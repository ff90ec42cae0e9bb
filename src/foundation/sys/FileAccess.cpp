// POSIX file access behind one seam that tests can fail on purpose.
#include "foundation/sys/FileAccess.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <new>
#include <thread>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <unordered_map>

namespace vaporix::sys {

void FileFaults::listed(const std::string&, std::vector<FolderEntry>&) {}

void FileFaults::pause(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

namespace {

std::atomic<FileFaults*> gFaults{nullptr};

// The paths open descriptors were opened under, kept only while faults are installed, so that
// a fault can aim at one file.
std::mutex gPathsLock;
std::unordered_map<int, std::string>& openPaths() {
    static auto* paths = new std::unordered_map<int, std::string>;
    return *paths;
}

std::string pathOf(int fd) {
    std::lock_guard<std::mutex> guard(gPathsLock);
    auto it = openPaths().find(fd);
    return it == openPaths().end() ? std::string() : it->second;
}

// Asks the installed faults about one call; true when the call is to fail (errno set).
bool injected(FileOp op, const std::string& path, size_t& size) {
    FileFaults* faults = gFaults.load(std::memory_order_acquire);
    if (!faults) return false;
    const size_t asked = size;
    const int err = faults->before(op, path, size);
    if (size == 0 || size > asked) size = asked;
    if (err == 0) return false;
    errno = err;
    return true;
}

bool injected(FileOp op, const std::string& path) {
    size_t none = 0;
    return injected(op, path, none);
}

bool injectedOnFd(FileOp op, int fd, size_t& size) {
    if (!gFaults.load(std::memory_order_acquire)) return false;
    return injected(op, pathOf(fd), size);
}

}  // namespace

FileFaults* setFileFaults(FileFaults* faults) { return gFaults.exchange(faults); }

int openFile(const std::string& path, int flags, int mode) {
    if (path.empty() || path.find('\0') != std::string::npos) {
        errno = ENOENT;
        return -1;
    }
    for (;;) {
        if (injected(FileOp::Open, path)) {
            if (errno == EINTR) continue;
            return -1;
        }
        const int fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
        if (fd < 0 && errno == EINTR) continue;
        if (fd >= 0 && gFaults.load(std::memory_order_acquire)) {
            std::lock_guard<std::mutex> guard(gPathsLock);
            openPaths()[fd] = path;
        }
        return fd;
    }
}

ssize_t readSome(int fd, void* data, size_t size) {
    if (size && injectedOnFd(FileOp::Read, fd, size)) return -1;
    return ::read(fd, data, size);
}

int64_t readFully(int fd, void* data, size_t size) {
    auto* p = static_cast<char*>(data);
    size_t got = 0;
    while (got < size) {
        const ssize_t n = readSome(fd, p + got, size - got);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) break;
        got += static_cast<size_t>(n);
    }
    return static_cast<int64_t>(got);
}

bool writeAll(int fd, const void* data, size_t size) {
    const auto* p = static_cast<const char*>(data);
    while (size > 0) {
        size_t piece = size;
        ssize_t n;
        if (injectedOnFd(FileOp::Write, fd, piece))
            n = -1;
        else
            n = ::write(fd, p, piece);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) {
            errno = ENOSPC;  // a write that takes nothing would loop for ever
            return false;
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

off_t seekFile(int fd, off_t offset, int whence) {
    size_t none = 0;
    if (injectedOnFd(FileOp::Seek, fd, none)) return -1;
    return ::lseek(fd, offset, whence);
}

bool syncFile(int fd) {
    size_t none = 0;
    for (;;) {
        if (injectedOnFd(FileOp::Sync, fd, none)) {
            if (errno == EINTR) continue;
            return false;
        }
        if (::fsync(fd) == 0) return true;
        if (errno != EINTR) return false;
    }
}

bool closeFile(int fd) {
    size_t none = 0;
    const bool fail = injectedOnFd(FileOp::Close, fd, none);
    const int err = errno;
    if (gFaults.load(std::memory_order_acquire)) {
        std::lock_guard<std::mutex> guard(gPathsLock);
        openPaths().erase(fd);
    }
    // The descriptor is released in any case: retrying a close after EINTR may close another.
    const bool closed = ::close(fd) == 0;
    if (fail) {
        errno = err;
        return false;
    }
    return closed;
}

void pauseBeforeRetry(int milliseconds) {
    if (FileFaults* faults = gFaults.load(std::memory_order_acquire))
        faults->pause(milliseconds);
    else
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

ssize_t copySome(int in, int out, size_t size) {
    if (size && injectedOnFd(FileOp::Write, out, size)) return -1;
    return ::copy_file_range(in, nullptr, out, nullptr, size, 0);
}

bool renameNoReplace(const std::string& from, const std::string& to) {
    if (injected(FileOp::Rename, from)) return false;
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP) return false;
    // File systems without the atomic form: a check, then a rename.
    struct stat st;
    if (::lstat(to.c_str(), &st) == 0) {
        errno = EEXIST;
        return false;
    }
    return ::rename(from.c_str(), to.c_str()) == 0;
}

bool renamePath(const std::string& from, const std::string& to) {
    if (injected(FileOp::Rename, from)) return false;
    return ::rename(from.c_str(), to.c_str()) == 0;
}

bool removePath(const std::string& path) {
    if (injected(FileOp::Remove, path)) return false;
    return ::unlink(path.c_str()) == 0;
}

bool readFolder(const std::string& folder, std::vector<FolderEntry>& entries) {
    entries.clear();
    const std::string dirPath = folder.empty() ? std::string(".") : folder;
    if (injected(FileOp::List, dirPath)) return false;
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
    if (FileFaults* faults = gFaults.load(std::memory_order_acquire))
        faults->listed(folder, entries);
    return true;
}

// ---------------------------------------------------------------------------------------------
// stdio streams

namespace {

struct StreamCookie {
    int fd;
};

ssize_t cookieRead(void* c, char* buf, size_t size) {
    const int64_t n = readFully(static_cast<StreamCookie*>(c)->fd, buf, size);
    return static_cast<ssize_t>(n);
}

ssize_t cookieWrite(void* c, const char* buf, size_t size) {
    // stdio takes a short count as an error, so write everything or fail.
    return writeAll(static_cast<StreamCookie*>(c)->fd, buf, size) ? static_cast<ssize_t>(size)
                                                                  : -1;
}

int cookieSeek(void* c, off64_t* offset, int whence) {
    const off_t at = seekFile(static_cast<StreamCookie*>(c)->fd, *offset, whence);
    if (at < 0) return -1;
    *offset = at;
    return 0;
}

int cookieClose(void* c) {
    auto* cookie = static_cast<StreamCookie*>(c);
    const bool ok = closeFile(cookie->fd);
    delete cookie;
    return ok ? 0 : -1;
}

// The descriptors behind open streams, for syncStream (fileno() doesn't see through a cookie).
std::mutex gStreamsLock;
std::unordered_map<FILE*, int>& streamFds() {
    static auto* fds = new std::unordered_map<FILE*, int>;
    return *fds;
}

}  // namespace

FILE* openStream(const std::string& path, const char* mode) {
    int flags;
    const std::string m = mode ? mode : "";
    if (m == "rb" || m == "r")
        flags = O_RDONLY;
    else if (m == "wb" || m == "w")
        flags = O_WRONLY | O_CREAT | O_TRUNC;
    else if (m == "ab" || m == "a")
        flags = O_WRONLY | O_CREAT | O_APPEND;
    else if (m == "r+b" || m == "rb+" || m == "r+")
        flags = O_RDWR;
    else {
        errno = EINVAL;
        return nullptr;
    }
    const int fd = openFile(path, flags);
    if (fd < 0) return nullptr;
    auto* cookie = new (std::nothrow) StreamCookie{fd};
    FILE* f = cookie ? fopencookie(cookie, m.c_str(),
                                   cookie_io_functions_t{cookieRead, cookieWrite, cookieSeek,
                                                         cookieClose})
                     : nullptr;
    if (!f) {
        const int err = cookie ? errno : ENOMEM;
        delete cookie;
        closeFile(fd);
        errno = err;
        return nullptr;
    }
    std::lock_guard<std::mutex> guard(gStreamsLock);
    streamFds()[f] = fd;
    return f;
}

bool syncStream(FILE* stream) {
    // A failed write of an earlier flush leaves only the error flag behind.
    if (std::fflush(stream) != 0 || std::ferror(stream)) {
        if (errno == 0) errno = EIO;
        return false;
    }
    int fd = -1;
    {
        std::lock_guard<std::mutex> guard(gStreamsLock);
        auto it = streamFds().find(stream);
        if (it != streamFds().end()) fd = it->second;
    }
    if (fd < 0) fd = ::fileno(stream);
    if (fd < 0) {
        errno = EBADF;
        return false;
    }
    return syncFile(fd);
}

bool closeStream(FILE* stream) {
    {
        std::lock_guard<std::mutex> guard(gStreamsLock);
        streamFds().erase(stream);
    }
    const bool failedBefore = std::ferror(stream) != 0;
    const int err = errno;
    const bool closed = std::fclose(stream) == 0;
    if (failedBefore && closed) errno = err ? err : EIO;
    return closed && !failedBefore;
}

std::string temporaryPathBeside(const std::string& path) {
    static std::atomic<unsigned> counter{0};
    return path + ".tmp" + std::to_string(::getpid()) + "_" + std::to_string(counter.fetch_add(1));
}

bool writeFileAtomically(const std::string& path, const void* data, uint64_t bytes) {
    const std::string temp = temporaryPathBeside(path);
    const int fd = openFile(temp, O_WRONLY | O_CREAT | O_TRUNC);
    if (fd < 0) return false;
    const auto* p = static_cast<const char*>(data);
    bool ok = true;
    // In pieces of at most 1 MiB, as every writer of the library does.
    for (uint64_t done = 0; ok && done < bytes;) {
        const size_t piece = static_cast<size_t>(std::min<uint64_t>(bytes - done, 1u << 20));
        ok = writeAll(fd, p + done, piece);
        done += piece;
    }
    ok = ok && syncFile(fd);
    int err = ok ? 0 : errno;
    if (!closeFile(fd) && ok) {
        ok = false;
        err = errno;
    }
    if (ok && !renamePath(temp, path)) {
        ok = false;
        err = errno;
    }
    if (!ok) {
        ::unlink(temp.c_str());
        errno = err;
    }
    return ok;
}

}  // namespace vaporix::sys
