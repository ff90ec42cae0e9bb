// Whole-file reads and atomic writes.
#include "FileOut.h"

#include <unistd.h>

#include <cstdio>

namespace vaporix::cli {

bool writeFileAtomically(const std::string& path, const void* data, uint64_t bytes) {
    const std::string temp = path + ".tmp" + std::to_string(getpid());
    FILE* f = std::fopen(temp.c_str(), "wb");
    if (!f) return false;
    bool ok = bytes == 0 || std::fwrite(data, 1, bytes, f) == bytes;
    ok = (std::fclose(f) == 0) && ok;
    ok = ok && std::rename(temp.c_str(), path.c_str()) == 0;
    if (!ok) std::remove(temp.c_str());
    return ok;
}

bool readWholeFile(const std::string& path, std::vector<uint8_t>& out) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    out.clear();
    uint8_t buf[1 << 16];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
    const bool ok = !std::ferror(f);
    std::fclose(f);
    return ok;
}

}  // namespace vaporix::cli
