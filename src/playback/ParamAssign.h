// Parameter assignments in their command-line form, NAME[i]@TICK=VALUE.
#pragma once

#include <string>

#include "playback/MemoryParamStorage.h"
#include "playback/VaporixParams.h"

namespace vaporix {

/// Applies one assignment to a parameter set:
///   NAME=VALUE         int 80 (or a combo's text: earg=Smoke), bool on/off, float 0.5,
///                      point3 0.2,0.2,0.2, string text, node handle;
///   NAME[i]=VALUE      item i of a tab (the tab grows to hold it);
///   NAME@TICK=VALUE    a key at that tick (animatable parameters);
///   NAME=[...] / {...} a JSON value: a whole tab, or keys {"keys": [[tick, value], ...]}.
/// Plain values go through the accessors of `params`, as a panel would set them.
/// @return false with `error` for an unknown name, a value of the wrong type or form.
bool applyParamAssignment(const std::string& assignment,
                          MemoryParamStorage& storage,
                          VaporixParamsMax& params,
                          std::string& error);

}  // namespace vaporix
