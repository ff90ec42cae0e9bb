// Access to a grid object's parameters by name, and its implementation on the two blocks.
#pragma once

#include <functional>
#include <string>

#include "playback/IParamStorage.h"
#include "playback/ParamTable.h"
#include "playback/ParamTypes.h"

namespace vaporix {

/// The parameters of one grid object by name. Times are doubles, turned into host ticks by
/// adding 0.5 and flooring; `tab` is the item of a tab parameter. A name that no block holds
/// reads as 0, an empty string or a zero vector, and setting it does nothing.
class VaporixParams {
public:
    virtual ~VaporixParams();

    virtual int getInt(const char* name, double time = 0.0, int tab = 0) const = 0;
    virtual float getFloat(const char* name, double time = 0.0, int tab = 0) const = 0;
    virtual void getVector(Vector& out, const char* name, double time = 0.0, int tab = 0) const = 0;
    virtual void getString(std::string& out,
                           const char* name,
                           double time = 0.0,
                           int tab = 0) const = 0;
    virtual NodeHandle getNode(const char* name, double time = 0.0, int tab = 0) const = 0;
    /// Items of a tab parameter; 1 for a single value, 0 for an unknown name.
    virtual int getCount(const char* name) const = 0;

    /// Setters answer false when the name or item does not exist or the type does not fit.
    virtual bool setNode(const char* name, double time, NodeHandle value, int tab = 0) = 0;
    virtual bool setString(const char* name,
                           double time,
                           const std::string& value,
                           int tab = 0) = 0;
    virtual bool setVector(const char* name, double time, const Vector& value, int tab = 0) = 0;
    virtual bool setFloat(const char* name, double time, float value, int tab = 0) = 0;
    virtual bool setInt(const char* name, double time, int value, int tab = 0) = 0;
    virtual bool setCount(const char* name, int count) = 0;
    virtual bool deleteItem(const char* name, int index, int count) = 0;

    /// The parameter's index in its block, with the block's id in `blockId`; -1 when unknown.
    virtual int findBlock(const char* name, int& blockId) const = 0;

    /// Convenience: a string parameter as a return value.
    std::string getString(const char* name, double time = 0.0, int tab = 0) const {
        std::string s;
        getString(s, name, time, tab);
        return s;
    }
    Vector getVector(const char* name, double time = 0.0, int tab = 0) const {
        Vector v;
        getVector(v, name, time, tab);
        return v;
    }
};

/// VaporixParams on the two blocks of the grid object, whose values live in an IParamStorage
/// (the host's blocks, a scene file, or our MemoryParamStorage). Names are searched in the
/// render block, then in the preview block. Setters limit values to the declared range and run
/// the accessors of the panel:
///  - `smoothenable_face` and `smoothprm_face` are a view of the smoothing switch and values of
///    the channel that `sm_ch` selects (`enablesmoothtemp`/`smoothtemp` for 1, and so on);
///  - `surflevel` is a view of the threshold of the channel that `sarg` selects
///    (`surflevel_m` texture, `_t`, `_s`, `_v`, `_fl`), so changing `sarg` shows that
///    channel's level;
///  - setting `rendinput` sets `prv_dwnsmp` to 0 when `prv_autoreduct` is on, and fills an
///    empty `usrchmap` with the default channel map of the new path.
class VaporixParamsMax : public VaporixParams {
public:
    /// Gives the default channel map of a cache path (empty when it has none).
    using ChannelMapSource = std::function<std::string(const std::string& path)>;

    explicit VaporixParamsMax(IParamStorage& storage) : mStorage(storage) {}

    IParamStorage& storage() const { return mStorage; }
    void setChannelMapSource(ChannelMapSource source) { mChannelMaps = std::move(source); }

    int getInt(const char* name, double time = 0.0, int tab = 0) const override;
    float getFloat(const char* name, double time = 0.0, int tab = 0) const override;
    void getVector(Vector& out, const char* name, double time = 0.0, int tab = 0) const override;
    void getString(std::string& out,
                   const char* name,
                   double time = 0.0,
                   int tab = 0) const override;
    NodeHandle getNode(const char* name, double time = 0.0, int tab = 0) const override;
    int getCount(const char* name) const override;

    bool setNode(const char* name, double time, NodeHandle value, int tab = 0) override;
    bool setString(const char* name, double time, const std::string& value, int tab = 0) override;
    bool setVector(const char* name, double time, const Vector& value, int tab = 0) override;
    bool setFloat(const char* name, double time, float value, int tab = 0) override;
    bool setInt(const char* name, double time, int value, int tab = 0) override;
    bool setCount(const char* name, int count) override;
    bool deleteItem(const char* name, int index, int count) override;
    int findBlock(const char* name, int& blockId) const override;

    using VaporixParams::getString;
    using VaporixParams::getVector;

    /// False while a check box of the enable rules that greys this parameter is off.
    bool isEnabled(const char* name, double time = 0.0) const;

private:
    /// The declaration that holds the value of `name` after the accessors' redirection.
    const ParamDef* resolve(const char* name, double time) const;
    bool read(const char* name, double time, int tab, ParamValue& out, const ParamDef** def) const;
    bool write(const char* name, double time, int tab, const ParamValue& value);

    IParamStorage& mStorage;
    ChannelMapSource mChannelMaps;
};

/// The parameter that the smoothing view shows for an `sm_ch` value (`enable` for the switch,
/// otherwise the values); null for an unknown channel.
const char* smoothingParamFor(int smCh, bool enable);
/// The threshold parameter that `surflevel` shows for a `sarg` value; null when unknown.
const char* surfaceLevelParamFor(int sarg);

}  // namespace vaporix
