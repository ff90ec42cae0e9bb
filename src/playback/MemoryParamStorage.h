// The in-memory store of both parameter blocks, with keyed values for animatable parameters.
#pragma once

#include <utility>
#include <vector>

#include "playback/IParamStorage.h"
#include "playback/VaporixDefaults.h"

namespace vaporix {

/// Our own parameter storage, used where no host keeps the blocks (tools, scene files, tests).
/// Every parameter starts at its default. An animatable item can hold keys: between keys floats
/// and points interpolate linearly, other types hold the key at or before the time; outside the
/// keys the end keys hold.
///
/// A set at a time makes a key only in animate mode (as the host's animate button). Outside it,
/// a keyed item is shifted as a whole by the change at that time, as the host does.
class MemoryParamStorage : public IParamStorage {
public:
    /// Longest tab this store accepts; longer requests fail instead of exhausting memory.
    static constexpr int MAX_TAB_COUNT = 1 << 20;

    struct Key {
        TimeValue time;
        ParamValue value;
    };

    /// `defaults` answers the parameters that ask (the grid object's overrides when null).
    explicit MemoryParamStorage(const VaporixDefaults* defaults = nullptr);

    int count(const ParamDef& def) const override;
    bool setCount(const ParamDef& def, int count) override;
    bool deleteItems(const ParamDef& def, int index, int n) override;
    bool get(const ParamDef& def, TimeValue t, int index, ParamValue& out) const override;
    bool set(const ParamDef& def, TimeValue t, int index, const ParamValue& value) override;

    void setAnimateMode(bool on) { mAnimate = on; }
    bool animateMode() const { return mAnimate; }

    /// Keys of one item, in time order (empty when it holds a plain value).
    const std::vector<Key>& keys(const ParamDef& def, int index) const;
    /// Sets (or replaces) the key at time t; only for animatable parameters.
    bool setKey(const ParamDef& def, TimeValue t, int index, const ParamValue& value);
    /// Drops the keys of an item, keeping its value at time t as the plain value.
    void clearKeys(const ParamDef& def, int index, TimeValue t = 0);

    /// Every parameter back to its default, tabs empty.
    void resetAll();
    void resetParam(const ParamDef& def);
    /// True when the parameter holds its default with no keys (tabs: when empty).
    bool isDefault(const ParamDef& def) const;

    const VaporixDefaults* defaults() const { return mDefaults; }

private:
    struct Track {
        ParamValue value;
        std::vector<Key> keys;
    };
    std::vector<Track>* tracks(const ParamDef& def);
    const std::vector<Track>* tracks(const ParamDef& def) const;
    ParamValue valueAt(const ParamDef& def, const Track& track, TimeValue t) const;

    const VaporixDefaults* mDefaults;
    std::vector<std::vector<Track>> mSlots[PARAM_BLOCK_COUNT];
    bool mAnimate = false;
};

}  // namespace vaporix
