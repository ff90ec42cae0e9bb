// The one door of the library to file contents: open, read, write, seek, sync, close, rename,
// remove, and stdio streams over them. Everything that reads or writes a file goes through
// here, so that tests can make any of these calls fail the way shared storage fails (see
// `FileFaults`), and so that interrupted calls and short transfers are handled in one place.
//
// Calls are silent: a failure is a false or -1 result with `errno` set; nothing is logged.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "foundation/sys/Files.h"

namespace vaporix::sys {

/// The calls a `FileFaults` sees.
enum class FileOp { Open, Read, Write, Seek, Sync, Close, Rename, Remove, List };

/// Stands between the library and the system for tests. Installed process-wide with
/// `setFileFaults`; calls may come from any thread, so an implementation guards its own state.
class FileFaults {
public:
    virtual ~FileFaults() = default;
    /// Called before each system call. Returns the errno to fail it with, or 0 to let it
    /// through. For Read and Write, `size` may be lowered (not to 0) to make a short transfer.
    /// `path` is the file's path (for Rename the source; for calls on an open file, the path it
    /// was opened under).
    virtual int before(FileOp op, const std::string& path, size_t& size) = 0;
    /// Sees a folder listing as the system returned it, and may reorder it, as another file
    /// system would (called before the listing is put in name order).
    virtual void listed(const std::string& folder, std::vector<FolderEntry>& entries);
    /// A pause between attempts (see `pauseBeforeRetry`); the default sleeps. A test records
    /// it instead, so that it never waits.
    virtual void pause(int milliseconds);
};

/// Installs `faults` (nullptr: none) and returns the one before. For tests only.
FileFaults* setFileFaults(FileFaults* faults);

/// Opens a file as open(2) does (O_CLOEXEC is added). A failure with EINTR is retried.
int openFile(const std::string& path, int flags, int mode = 0666);
/// One read(2); -1 with errno on failure, 0 at the end.
ssize_t readSome(int fd, void* data, size_t size);
/// Reads until `size` bytes or the end, going on after interruptions and short reads.
/// Returns the bytes read, or -1 with errno.
int64_t readFully(int fd, void* data, size_t size);
/// Writes all of `data`, going on after interruptions and short writes.
bool writeAll(int fd, const void* data, size_t size);
/// lseek(2).
off_t seekFile(int fd, off_t offset, int whence);
/// fsync(2).
bool syncFile(int fd);
/// close(2); the descriptor is gone whatever the result.
bool closeFile(int fd);
/// Sleeps `milliseconds` between two attempts of a call, or hands the pause to the faults.
void pauseBeforeRetry(int milliseconds);
/// copy_file_range(2) of up to `size` bytes from `in` to `out` at their positions (seen as a
/// Write of `out`). Bytes copied, 0 at the end of `in`, -1 with errno.
ssize_t copySome(int in, int out, size_t size);
/// rename(2) that fails with EEXIST instead of replacing an existing `to`.
bool renameNoReplace(const std::string& from, const std::string& to);
/// rename(2): replaces `to`.
bool renamePath(const std::string& from, const std::string& to);
/// unlink(2) of a file.
bool removePath(const std::string& path);
/// The entries of a folder through the seam (see `listFolder`, which sorts them).
bool readFolder(const std::string& folder, std::vector<FolderEntry>& entries);

/// A stdio stream over the calls above, for code that reads or writes through FILE*.
/// `mode` is "rb", "wb", "ab" or "r+b". Reads and writes go on after interruptions and short
/// transfers. Close it with `closeStream` (fclose works too, but skips nothing).
FILE* openStream(const std::string& path, const char* mode);
/// Flushes a stream of `openStream` and syncs its file to the storage.
bool syncStream(FILE* stream);
/// Closes a stream of `openStream`: false when the flush or the close failed.
bool closeStream(FILE* stream);

/// Writes `bytes` to `path` through a temporary file beside it (see below), synced
/// and renamed into place: `path` is either left as it was or replaced whole, never half
/// written. The temporary file is removed after a failure.
bool writeFileAtomically(const std::string& path, const void* data, uint64_t bytes);
/// A temporary name beside `path` that no other writer of this or another process uses, and
/// that a user can tell from a finished file: "<path>.tmp<pid>_<n>".
std::string temporaryPathBeside(const std::string& path);

}  // namespace vaporix::sys
