// Writes the .vxg fixtures into a folder (tests/data when run by a developer).
#include <cstdio>

#include "Fixtures.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: vaporix_make_fixtures FOLDER\n");
        return 2;
    }
    for (const auto& name : vaporix::test::fixtureNames()) {
        const std::string path = std::string(argv[1]) + "/" + name;
        if (!vaporix::test::writeFixture(name, path)) {
            std::fprintf(stderr, "can't write %s\n", path.c_str());
            return 1;
        }
        std::printf("%s\n", path.c_str());
    }
    return 0;
}
