// Side modules for foreign caches: loader, channel maps, import of a frame, default maps.
#include "cache/CacheIO.h"

#include <cstdlib>
#include <cstring>
#include <iterator>

#include "abi/SideModuleAbi.h"
#include "cache/VaporixFrameData.h"
#include "foundation/EnumFiles.h"
#include "foundation/FramePattern.h"
#include "foundation/log.h"
#include "foundation/sys/DynamicLibrary.h"
#include "foundation/sys/Files.h"

namespace vaporix::CacheIO {

namespace {

constexpr size_t MAX_MODULE_NAME = 1024;

/// One loaded module: its library and the five exports (all set or all null).
struct SideModule {
    const char* name;
    void* library = nullptr;
    SideModuleInitializeFn initialize = nullptr;
    SideModuleSetThreadManagerFn setThreadManager = nullptr;
    SideModuleReleaseThreadManagerFn releaseThreadManager = nullptr;
    SideModuleImportFrameFn importFrame = nullptr;
    SideModuleGetAvailableChannelsFn getAvailableChannels = nullptr;
    SideModuleExportFrameFn exportFrame = nullptr;

    bool complete() const {
        return initialize && setThreadManager && releaseThreadManager && importFrame &&
               getAvailableChannels;
    }
};

// Process-wide: loaded once at start, touched from the loading thread only.
SideModule gField3D{"field3dio"};
SideModule gOpenVDB{"openvdbio"};
int gAxisMode = 1;

template <typename Fn>
Fn resolve(void* library, const char* name) {
    return reinterpret_cast<Fn>(sys::findSymbol(library, name));
}

/// Opens the library of `module` and resolves its exports in the order of the interface.
/// @return false when the library is missing or an export is.
bool loadModule(SideModule& module,
                const char* importName,
                const char* searchPath,
                const char* suffix) {
    if (module.library) return module.complete();
    const std::string file = sideModuleFileName(module.name, searchPath, suffix);
    if (file.empty()) return false;
    std::string error;
    module.library = sys::openLibrary(file, &error);
    if (!module.library) {
        lumoLog("Side module %s not loaded: %s\n", file.c_str(), error.c_str());
        return false;
    }
    module.initialize = resolve<SideModuleInitializeFn>(module.library, sidemodule::INITIALIZE);
    module.setThreadManager =
        resolve<SideModuleSetThreadManagerFn>(module.library, sidemodule::SET_THREAD_MANAGER);
    module.releaseThreadManager = resolve<SideModuleReleaseThreadManagerFn>(
        module.library, sidemodule::RELEASE_THREAD_MANAGER);
    module.importFrame = resolve<SideModuleImportFrameFn>(module.library, importName);
    module.getAvailableChannels = resolve<SideModuleGetAvailableChannelsFn>(
        module.library, sidemodule::GET_AVAILABLE_CHANNELS);
    if (!module.complete()) {
        // All five or none; the library stays open, as a half module is never called.
        module.initialize = nullptr;
        module.setThreadManager = nullptr;
        module.releaseThreadManager = nullptr;
        module.importFrame = nullptr;
        module.getAvailableChannels = nullptr;
        lumoLog("Side module %s lacks an export\n", file.c_str());
        return false;
    }
    module.exportFrame = resolve<SideModuleExportFrameFn>(module.library, sidemodule::EXPORT_VDB);
    return true;
}

/// Forgets a module. Its library stays mapped to the end of the process: OpenVDB and HDF5 keep
/// globals and exit handlers of their own that must not lose their code.
void unloadModule(SideModule& module) { module = SideModule{module.name}; }

/// The import steps shared by both formats.
int importForeign(SideModule& module,
                  const char* noMapLog,
                  const char* path,
                  VaporixFrameData& frame,
                  const char* channelMap,
                  bool headerOnly) {
    // 1-2. A fresh header; without the module nothing else happens.
    frame.resetHeader(headerOnly);
    if (!module.complete()) return LOAD_NO_MODULE;

    // 3. The mappings.
    iArray<GridMapping> mappings;
    parseChannelMap(channelMap, mappings);
    if (mappings.count == 0) {
        lumoLog("%s", noMapLog);
        return LOAD_NO_CHANNEL_MAP;
    }

    // 4. The module fills the frame.
    const int status =
        module.importFrame(path, &frame, headerOnly ? 1 : 0, mappings.data, mappings.count);
    if (status != LOAD_OK) return status;

    // 5. Velocity is kept whole or not at all.
    int velocity = 0;
    for (int c = CH_VELOCITY_X; c <= CH_VELOCITY_Z; ++c)
        if (frame.channels[c] || frame.HasChannel(c)) ++velocity;
    if (velocity < 3) {
        for (int c = CH_VELOCITY_X; c <= CH_VELOCITY_Z; ++c) {
            frame.channelMask &= ~(1u << c);
            internal::arrayRelease(frame.channels[c]);
            frame.channels[c] = nullptr;
        }
    }

    // 6. The one-word stream that marks a loaded frame whose channels are already expanded.
    internal::arrayRelease(frame.comprData);
    frame.comprData = static_cast<int32_t*>(internal::arrayAllocate(4));
    if (!frame.comprData) {
        frame.comprDataSzInts = 0;
        return LOAD_BROKEN;
    }
    frame.comprData[0] = 0;
    frame.comprDataSzInts = 1;

    // 7. Axis mode 2: y and z exchanged, the new z negated.
    if (gAxisMode == 2) {
        float* m = frame.gridTransform.m;
        for (int k = 0; k < 3; ++k) {
            const float oldY = m[3 + k];
            m[3 + k] = m[6 + k];
            m[6 + k] = -oldY;
        }
    }
    return LOAD_OK;
}

/// Walks a sequence and gathers the channels of its foreign files.
class Find3rdPartyCacheChannelsEnum : public VaporixEnum::EnumFiles {
public:
    explicit Find3rdPartyCacheChannelsEnum(iArray<AvaiableChannels>& list) : mList(list) {}

    void process(const std::string& fileName) override {
        if (mStopped) return;
        const iString ext = iString(getExtension(fileName)).lower();
        SideModule* module = nullptr;
        if (ext == "f3d")
            module = &gField3D;
        else if (ext == "vdb")
            module = &gOpenVDB;
        else {
            mStopped = true;
            return;
        }
        if (!module->complete()) return;
        iArray<AvaiableChannels> offered;
        module->getAvailableChannels(fileName.c_str(), &offered);
        for (const auto& ch : offered) {
            bool known = false;
            for (const auto& have : mList)
                if (have.name == ch.name) known = true;
            if (!known) mList.append(ch);
        }
    }

private:
    iArray<AvaiableChannels>& mList;
    bool mStopped = false;
};

/// One row of a default table.
struct TableRow {
    const char* name;
    int channel;
    float scale;
};

// Scale of the liquid rows: level-set values (negative inside) to a positive liquid channel.
constexpr float LEVEL_SET_SCALE = -33.3333f;

const TableRow OPENVDB_TABLE[] = {
    {"density", 2, 1},
    {"temperature", 1, 1},
    {"fluid_density", 1, LEVEL_SET_SCALE},
    {"surface", 1, LEVEL_SET_SCALE},
    {"vel.x", 4, 1},
    {"vel.y", 5, 1},
    {"vel.z", 6, 1},
    {"V(x)", 4, 1},
    {"V(y)", 5, 1},
    {"V(z)", 6, 1},
    {"color(x)", 7, 1},
    {"color(y)", 8, 1},
    {"color(z)", 9, 1},
    {"Smoke", 2, 1},
    {"FireFuel", 10, 1},
    {"Temperature", 1, 1},
    {"VelocitiesX", 4, 1},
    {"VelocitiesY", 5, 1},
    {"VelocitiesZ", 6, 1},
    {"ColorR", 7, 1},
    {"ColorG", 8, 1},
    {"ColorB", 9, 1},
    {"particle_count_per_cell", 1, 1},
    {"rest.x", 7, 1},
    {"rest.y", 8, 1},
    {"rest.z", 9, 1},
};

// "velocity(Y)" and "velocity(Z)" are spelled with capitals, and "VelocitiesX" goes to z here:
// both are what existing scenes' maps were made with.
const TableRow FIELD3D_TABLE[] = {
    {"density", 2, 1},
    {"fuel", 10, 1},
    {"temperature", 1, 1},
    {"v_mac(x)", 4, 1},
    {"velocity(x)", 4, 1},
    {"v_mac(y)", 5, 1},
    {"velocity(Y)", 5, 1},
    {"v_mac(z)", 6, 1},
    {"velocity(Z)", 6, 1},
    {"Smoke", 2, 1},
    {"FireFuel", 10, 1},
    {"Temperature", 1, 1},
    {"VelocitiesX", 6, 1},
    {"VelocitiesY", 5, 1},
    {"VelocitiesZ", 4, 1},
    {"ColorR", 7, 1},
    {"ColorG", 8, 1},
    {"ColorB", 9, 1},
    {"particle_count_per_cell", 1, 1},
    {"fluid_velocity(x)", 4, 1},
    {"fluid_velocity(y)", 5, 1},
    {"fluid_velocity(z)", 6, 1},
    {"Velocity(x)", 4, 1},
    {"Velocity(y)", 5, 1},
    {"Velocity(z)", 6, 1},
    {"Density", 2, 1},
    {"TextureCoord(x)", 7, 1},
    {"TextureCoord(y)", 8, 1},
    {"TextureCoord(z)", 9, 1},
};

const char* const OPENVDB_VELOCITY_NAMES[] = {"vel.x", "vel.y", "vel.z"};
const char* const FIELD3D_VELOCITY_NAMES[] = {"VelocitiesX", "VelocitiesY", "VelocitiesZ"};

}  // namespace

int parseChannelMap(const char* text, iArray<GridMapping>& out) {
    if (!text) return 0;
    int added = 0;
    const char* p = text;
    while (*p) {
        const char* comma = std::strchr(p, ',');
        if (!comma) break;
        const std::string number(p, comma);
        const char* nameStart = comma + 1;
        const char* semicolon = std::strchr(nameStart, ';');
        const char* nameEnd = semicolon ? semicolon : nameStart + std::strlen(nameStart);
        GridMapping m;
        m.channel = std::atoi(number.c_str());
        m.name = iString(std::string(nameStart, nameEnd));
        m.scale = 1.0f;
        if (!out.append(m)) break;
        ++added;
        if (!semicolon) break;
        p = semicolon + 1;
    }
    return added;
}

std::string printChannelMap(const iArray<GridMapping>& mappings) {
    std::string out;
    for (const auto& m : mappings) out += iString::format("%d,%s;", m.channel, m.name.c_str());
    return out;
}

std::string sideModuleFileName(const char* module, const char* searchPath, const char* suffix) {
    const bool hasSuffix = suffix && *suffix;
    if (!searchPath || !*searchPath || !hasSuffix) {
        return hasSuffix ? iString::format("%s_%s.so", module, suffix)
                         : iString::format("%s.so", module);
    }
    std::string path(searchPath);
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find_first_of(":;", start);
        if (end == std::string::npos) end = path.size();
        const std::string dir = path.substr(start, end - start);
        if (!dir.empty()) {
            const bool slash = dir.back() == '/' || dir.back() == '\\';
            const std::string name =
                dir + (slash ? "" : "/") + module + "_" + suffix + ".so";
            if (name.size() <= MAX_MODULE_NAME && sys::isFile(name)) return name;
        }
        start = end + 1;
    }
    return {};
}

std::string defaultModuleSearchPath() {
    std::string path;
    if (const char* env = std::getenv("LUMO_MODULE_PATH")) path = env;
    const std::string exe = sys::executableFolder();
    if (!exe.empty()) {
        if (!path.empty()) path += ':';
        path += exe;
    }
    return path;
}

int loadSideModules(int which, const char* searchPath, const char* suffix, int axisMode) {
    gAxisMode = axisMode;
    int failed = 0;
    if ((which & MODULE_FIELD3D) &&
        !loadModule(gField3D, sidemodule::IMPORT_F3D, searchPath, suffix))
        failed |= MODULE_FIELD3D;
    if ((which & MODULE_OPENVDB) &&
        !loadModule(gOpenVDB, sidemodule::IMPORT_VDB, searchPath, suffix))
        failed |= MODULE_OPENVDB;
    return failed;
}

void unloadSideModules() {
    unloadModule(gField3D);
    unloadModule(gOpenVDB);
}

bool setSideModuleThreadManager(LUtils::ThreadManager* manager) {
    bool any = false, all = true;
    for (SideModule* m : {&gField3D, &gOpenVDB}) {
        if (!m->complete()) continue;
        any = true;
        if (m->setThreadManager(manager) != 0) all = false;
    }
    return any && all;
}

void releaseSideModuleThreadManagers() {
    for (SideModule* m : {&gField3D, &gOpenVDB})
        if (m->complete()) m->releaseThreadManager();
}

bool hasField3DModule() { return gField3D.complete(); }
bool hasOpenVDBModule() { return gOpenVDB.complete(); }
bool hasOpenVDBExport() { return gOpenVDB.complete() && gOpenVDB.exportFrame; }
int sideModuleAxisMode() { return gAxisMode; }

int importF3D(const char* path, VaporixFrameData& frame, const char* channelMap, bool headerOnly) {
    return importForeign(gField3D, "Trying to import F3D files with no mappings specified!\n",
                         path, frame, channelMap, headerOnly);
}

int importVDB(const char* path, VaporixFrameData& frame, const char* channelMap, bool headerOnly) {
    return importForeign(gOpenVDB, "Trying to import VDB files with no mappings specified!\n",
                         path, frame, channelMap, headerOnly);
}

int exportVDB(const char* path, VaporixFrameData& frame, float tolerance, std::string& error) {
    if (!hasOpenVDBExport()) {
        error = "the OpenVDB module (openvdbio_lumo.so) is not available";
        return LOAD_NO_MODULE;
    }
    // The module reads expanded arrays only.
    for (int c : {CH_TEMPERATURE, CH_SMOKE, CH_VELOCITY_X, CH_VELOCITY_Y, CH_VELOCITY_Z, CH_RED,
                  CH_GREEN, CH_BLUE, CH_FUEL})
        if (frame.HasChannel(c) && !frame.GetChannelData(c)) {
            error = "channel " + channelName(c) + " can't be expanded";
            return SAVE_FAILED;
        }
    char message[512] = {};
    const int status =
        gOpenVDB.exportFrame(path, &frame, tolerance, message, static_cast<int>(sizeof message));
    if (status != 0) error = message[0] ? message : "the OpenVDB file can't be written";
    return status == 0 ? 0 : SAVE_FAILED;
}

int listCacheChannels(const char* pattern, iArray<AvaiableChannels>& out) {
    if (!pattern || !*pattern) return out.count;
    Find3rdPartyCacheChannelsEnum walker(out);
    enumerateSequence(walker, pattern, true);
    return out.count;
}

void defaultMappingFor(const char* extension,
                       const iArray<AvaiableChannels>& channels,
                       iArray<GridMapping>& out) {
    const iString ext = iString(extension ? extension : "").lower();
    const TableRow* table = nullptr;
    size_t rows = 0;
    const char* const* velocityNames = nullptr;
    if (ext == "vdb") {
        table = OPENVDB_TABLE;
        rows = std::size(OPENVDB_TABLE);
        velocityNames = OPENVDB_VELOCITY_NAMES;
    } else if (ext == "f3d") {
        table = FIELD3D_TABLE;
        rows = std::size(FIELD3D_TABLE);
        velocityNames = FIELD3D_VELOCITY_NAMES;
    } else {
        return;
    }

    // Each offered channel takes the first row of its name; the others wait for the fallback.
    iArray<int> unmapped;
    for (int i = 0; i < channels.count; ++i) {
        const TableRow* row = nullptr;
        for (size_t r = 0; r < rows && !row; ++r)
            if (channels[i].name == table[r].name) row = &table[r];
        if (!row) {
            unmapped.append(i);
            continue;
        }
        GridMapping m;
        m.name = channels[i].name;
        m.channel = row->channel;
        m.scale = row->scale;
        out.append(m);
    }

    // Smoke fallback: the first unmapped scalar that is not a velocity component.
    bool hasSmoke = false;
    for (const auto& m : out)
        if (m.channel == CH_SMOKE) hasSmoke = true;
    if (hasSmoke) return;
    for (int i : unmapped) {
        const AvaiableChannels& ch = channels[i];
        if (ch.kind != KIND_SCALAR) continue;
        bool isVelocity = false;
        for (int k = 0; k < 3; ++k)
            if (ch.name == velocityNames[k]) isVelocity = true;
        if (isVelocity) continue;
        GridMapping m;
        m.name = ch.name;
        m.channel = CH_SMOKE;
        m.scale = 1.0f;
        out.append(m);
        return;
    }
}

void buildDefaultMapping(std::string& out, const char* pattern) {
    out.clear();
    if (!pattern || !*pattern) return;
    iArray<AvaiableChannels> channels;
    if (listCacheChannels(pattern, channels) == 0) return;
    iArray<GridMapping> mappings;
    defaultMappingFor(getExtension(pattern).c_str(), channels, mappings);
    out = printChannelMap(mappings);
}

const char* sideModuleStatusMessage(int status) {
    switch (status) {
        case sidemodule::F3D_READ_FAILED:
            return "Field3D cache read failed! If the cache was exported from FumeFX, make sure "
                   "that it uses gzip compression!";
        case sidemodule::F3D_OUT_OF_MEMORY:
            return "Field3D cache read failed! Not enough memory!";
        case sidemodule::VDB_OUT_OF_MEMORY:
            return "OpenVDB cache read failed! Not enough memory!";
        default:
            return nullptr;
    }
}

const char* downsampledMessage() {
    return "The grid size of the imported file is too big and data was downsampled to lower the "
           "voxel count!\nPlease reduce the number of voxels below 2'147'483'647 if you want to "
           "avoid this!";
}

}  // namespace vaporix::CacheIO
