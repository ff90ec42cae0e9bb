// Where the values of the parameter blocks live: the host's blocks, a scene file, or memory.
#pragma once

#include "playback/ParamTable.h"
#include "playback/ParamTypes.h"

namespace vaporix {

/// Raw storage of parameter values, addressed by declaration, item and host tick time. It
/// applies no accessor and no range: VaporixParamsMax does that on top.
class IParamStorage {
public:
    virtual ~IParamStorage() = default;

    /// Items of a tab parameter; 1 for a single value.
    virtual int count(const ParamDef& def) const = 0;
    /// Sets a tab's length; new items hold the zero value. false for a single value, a bad
    /// count or when memory ran out.
    virtual bool setCount(const ParamDef& def, int count) = 0;
    /// Removes up to `n` items of a tab from `index`. false when nothing could be removed.
    virtual bool deleteItems(const ParamDef& def, int index, int n) = 0;
    /// The value of item `index` (0 for a single value) at time t. false when there is no
    /// such item.
    virtual bool get(const ParamDef& def, TimeValue t, int index, ParamValue& out) const = 0;
    /// Sets the value at time t. Whether this makes a key is the storage's affair (the host's
    /// animate mode). false when there is no such item.
    virtual bool set(const ParamDef& def, TimeValue t, int index, const ParamValue& value) = 0;
};

}  // namespace vaporix
