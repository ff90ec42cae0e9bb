// The in-memory store of both parameter blocks, with keyed values for animatable parameters.
#include "playback/MemoryParamStorage.h"

#include <algorithm>
#include <functional>
#include <new>

namespace vaporix {

namespace {

/// Linear blend of two values of a parameter type; non-interpolating types take `a`.
ParamValue blend(ParamType type, const ParamValue& a, const ParamValue& b, float f) {
    ParamValue v = a;
    if (type == ParamType::Float) {
        v.f = a.f + (b.f - a.f) * f;
    } else if (type == ParamType::Point3) {
        v.v.x = a.v.x + (b.v.x - a.v.x) * f;
        v.v.y = a.v.y + (b.v.y - a.v.y) * f;
        v.v.z = a.v.z + (b.v.z - a.v.z) * f;
    }
    return v;
}

/// Adds the change `to - from` to `v` (numbers only); other types take `to`.
void shift(ParamType type, ParamValue& v, const ParamValue& from, const ParamValue& to) {
    switch (type) {
        case ParamType::Int:
            v.i += to.i - from.i;
            break;
        case ParamType::Float:
            v.f += to.f - from.f;
            break;
        case ParamType::Point3:
            v.v.x += to.v.x - from.v.x;
            v.v.y += to.v.y - from.v.y;
            v.v.z += to.v.z - from.v.z;
            break;
        default:
            v = to;
            break;
    }
}

const std::vector<MemoryParamStorage::Key> NO_KEYS;

}  // namespace

MemoryParamStorage::MemoryParamStorage(const VaporixDefaults* defaults)
    : mDefaults(defaults ? defaults : &gridObjectDefaults()) {
    resetAll();
}

std::vector<MemoryParamStorage::Track>* MemoryParamStorage::tracks(const ParamDef& def) {
    return const_cast<std::vector<Track>*>(std::as_const(*this).tracks(def));
}

const std::vector<MemoryParamStorage::Track>* MemoryParamStorage::tracks(
    const ParamDef& def) const {
    // Declarations are addressed by their place in the block tables.
    const std::less<const ParamDef*> before;
    for (int b = 0; b < PARAM_BLOCK_COUNT; ++b) {
        const ParamBlockDef& block = paramBlock(b);
        const ParamDef* first = block.params;
        const ParamDef* end = block.params + block.count;
        if (!before(&def, first) && before(&def, end)) {
            const size_t index = static_cast<size_t>(&def - first);
            if (index < mSlots[b].size()) return &mSlots[b][index];
        }
    }
    return nullptr;
}

void MemoryParamStorage::resetAll() {
    for (int b = 0; b < PARAM_BLOCK_COUNT; ++b) {
        const ParamBlockDef& block = paramBlock(b);
        mSlots[b].assign(static_cast<size_t>(block.count), {});
        for (int i = 0; i < block.count; ++i) resetParam(block.params[i]);
    }
}

void MemoryParamStorage::resetParam(const ParamDef& def) {
    std::vector<Track>* t = tracks(def);
    if (!t) return;
    t->clear();
    if (!def.isTab()) t->push_back(Track{defaultValue(def, mDefaults), {}});
}

bool MemoryParamStorage::isDefault(const ParamDef& def) const {
    const std::vector<Track>* t = tracks(def);
    if (!t) return true;
    if (def.isTab()) return t->empty();
    if (t->size() != 1 || !(*t)[0].keys.empty()) return false;
    const ParamValue d = defaultValue(def, mDefaults);
    const ParamValue& v = (*t)[0].value;
    switch (def.type) {
        case ParamType::Int:
        case ParamType::Bool:
            return v.i == d.i;
        case ParamType::Float:
            return v.f == d.f;
        case ParamType::Point3:
            return v.v == d.v;
        case ParamType::String:
        case ParamType::Texmap:
            return v.s == d.s;
        case ParamType::Node:
            return v.node == d.node;
    }
    return true;
}

int MemoryParamStorage::count(const ParamDef& def) const {
    const std::vector<Track>* t = tracks(def);
    return t ? static_cast<int>(t->size()) : 0;
}

bool MemoryParamStorage::setCount(const ParamDef& def, int n) {
    std::vector<Track>* t = tracks(def);
    if (!t || !def.isTab() || n < 0 || n > MAX_TAB_COUNT) return false;
    try {
        t->resize(static_cast<size_t>(n));
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool MemoryParamStorage::deleteItems(const ParamDef& def, int index, int n) {
    std::vector<Track>* t = tracks(def);
    if (!t || !def.isTab() || index < 0 || n <= 0 || index >= static_cast<int>(t->size()))
        return false;
    const int last = std::min(static_cast<int>(t->size()), index + std::min(n, MAX_TAB_COUNT));
    t->erase(t->begin() + index, t->begin() + last);
    return true;
}

ParamValue MemoryParamStorage::valueAt(const ParamDef& def, const Track& track, TimeValue t) const {
    const std::vector<Key>& k = track.keys;
    if (k.empty()) return track.value;
    if (t <= k.front().time) return k.front().value;
    if (t >= k.back().time) return k.back().value;
    // The pair of keys around t.
    size_t hi = 1;
    while (hi < k.size() && k[hi].time < t) ++hi;
    const Key& a = k[hi - 1];
    const Key& b = k[hi];
    if (b.time == t) return b.value;
    const float f =
        static_cast<float>(static_cast<double>(t - a.time) / static_cast<double>(b.time - a.time));
    return blend(def.type, a.value, b.value, f);
}

bool MemoryParamStorage::get(const ParamDef& def, TimeValue t, int index, ParamValue& out) const {
    const std::vector<Track>* tr = tracks(def);
    if (!tr || index < 0 || index >= static_cast<int>(tr->size())) return false;
    out = valueAt(def, (*tr)[static_cast<size_t>(index)], t);
    return true;
}

bool MemoryParamStorage::set(const ParamDef& def, TimeValue t, int index, const ParamValue& value) {
    std::vector<Track>* tr = tracks(def);
    if (!tr || index < 0 || index >= static_cast<int>(tr->size())) return false;
    Track& track = (*tr)[static_cast<size_t>(index)];
    if (mAnimate && def.isAnimatable()) return setKey(def, t, index, value);
    if (track.keys.empty()) {
        track.value = value;
        return true;
    }
    // A keyed item outside animate mode moves as a whole.
    const ParamValue now = valueAt(def, track, t);
    for (Key& k : track.keys) shift(def.type, k.value, now, value);
    return true;
}

const std::vector<MemoryParamStorage::Key>& MemoryParamStorage::keys(const ParamDef& def,
                                                                     int index) const {
    const std::vector<Track>* tr = tracks(def);
    if (!tr || index < 0 || index >= static_cast<int>(tr->size())) return NO_KEYS;
    return (*tr)[static_cast<size_t>(index)].keys;
}

bool MemoryParamStorage::setKey(const ParamDef& def,
                                TimeValue t,
                                int index,
                                const ParamValue& value) {
    std::vector<Track>* tr = tracks(def);
    if (!tr || !def.isAnimatable() || index < 0 || index >= static_cast<int>(tr->size()))
        return false;
    std::vector<Key>& k = (*tr)[static_cast<size_t>(index)].keys;
    auto it = std::lower_bound(k.begin(), k.end(), t,
                               [](const Key& key, TimeValue time) { return key.time < time; });
    if (it != k.end() && it->time == t)
        it->value = value;
    else
        k.insert(it, Key{t, value});
    return true;
}

void MemoryParamStorage::clearKeys(const ParamDef& def, int index, TimeValue t) {
    std::vector<Track>* tr = tracks(def);
    if (!tr || index < 0 || index >= static_cast<int>(tr->size())) return;
    Track& track = (*tr)[static_cast<size_t>(index)];
    track.value = valueAt(def, track, t);
    track.keys.clear();
}

}  // namespace vaporix
