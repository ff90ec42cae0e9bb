// A parameter set as JSON: every parameter by name, keyed values and tabs included.
#pragma once

#include <string>
#include <vector>

#include "playback/JsonValue.h"
#include "playback/MemoryParamStorage.h"

namespace vaporix {

/// The form, by parameter type: int and node a number, bool true or false, float a number,
/// point3 [x, y, z], string and texmap a text. A keyed item is {"keys": [[tick, value], ...]}.
/// A tab is an array of items. Transient parameters are not written.
///
/// A document is {"params": {name: value, ...}}; a scene file embeds the "params" object.

/// The parameters as a "params" object; with `onlyChanged` only those that differ from their
/// default.
JsonValue paramsToJson(const MemoryParamStorage& storage, bool onlyChanged = false);

/// Reads a "params" object into `storage`, values limited to their ranges. Names that no block
/// holds are skipped and listed in `warnings`. A value of the wrong form fails with `error`
/// naming the parameter, and leaves `storage` as it was.
bool paramsFromJson(const JsonValue& params,
                    MemoryParamStorage& storage,
                    std::vector<std::string>& warnings,
                    std::string& error);

/// Whole documents: the text of {"params": ...}, and its reading.
std::string writeParamsDocument(const MemoryParamStorage& storage, bool onlyChanged = false);
bool readParamsDocument(const std::string& text,
                        MemoryParamStorage& storage,
                        std::vector<std::string>& warnings,
                        std::string& error);

/// One value of a parameter in its JSON form, and back (false on a wrong form).
JsonValue paramValueToJson(const ParamDef& def, const ParamValue& value);
bool paramValueFromJson(const ParamDef& def, const JsonValue& json, ParamValue& out);

}  // namespace vaporix
