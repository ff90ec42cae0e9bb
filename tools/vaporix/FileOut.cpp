// Whole-file reads and atomic writes, through the library's file access.
#include "FileOut.h"

#include <fcntl.h>

#include "foundation/sys/FileAccess.h"

namespace vaporix::cli {

bool writeFileAtomically(const std::string& path, const void* data, uint64_t bytes) {
    return sys::writeFileAtomically(path, data, bytes);
}

bool readWholeFile(const std::string& path, std::vector<uint8_t>& out) {
    const int fd = sys::openFile(path, O_RDONLY);
    if (fd < 0) return false;
    out.clear();
    uint8_t buf[1 << 16];
    bool ok = true;
    for (;;) {
        const int64_t n = sys::readFully(fd, buf, sizeof buf);
        if (n < 0) {
            ok = false;
            break;
        }
        out.insert(out.end(), buf, buf + n);
        if (n < static_cast<int64_t>(sizeof buf)) break;
    }
    sys::closeFile(fd);
    return ok;
}

}  // namespace vaporix::cli
