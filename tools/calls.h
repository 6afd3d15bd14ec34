// calls.h - every provided slot of SENSOR_INTERFACE as a named call with
// named arguments and named results, as korvanel-sim's report and scenario
// files make them:
//
//   ArgumentError error;
//   auto call = prepare_call("SelectMode", {{"TableIndex", "Preview"}, {"MinWidth", 1920},
//                                           {"MinHeight", 1080}}, error);
//   ordered_json result = call(si, false);   // {"status": "STATUS_SUCCESS"}
//   prepare_call("GetModeInfo", {}, error)(si, false)["Width"];   // 1920
//
// Arguments and results carry the header's names: the operation's parameter
// names (MinWidth, Id, Value, Size) and the fields of the records it fills.
// Every call also takes "null", a list of its pointer parameters to pass as
// null ("Context" included), and a call that fills a caller's record takes
// "fill" (the byte the record starts filled with) and "in" (fields of the
// record, or outputs such as Value, as they arrive).
#pragma once

#include "records.h"

#include "wdk/wdm.h"
#include "sensor/sensor_interface.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace korvanel::tool {

// What is wrong with an argument: its name, or a path below the arguments
// ("in/ModeFlags", "Entries/2"), and why.
struct ArgumentError {
    std::string field;
    std::string message;
};

// A call with its arguments checked and its buffers built, ready to be made
// any number of times. It calls the slot as the camera driver would and
// returns {"status": ...} (not for GetMipiConfig, which returns nothing),
// then what the call handed back by name. With `raw`, records carry their
// bytes too ("bytes").
using PreparedCall = std::function<nlohmann::ordered_json(const SENSOR_INTERFACE& si, bool raw)>;

// The mode tables by name, in TableIndex order: Still (0), Video, Preview, Raw.
const std::vector<const char*>& mode_table_names();
// A TableIndex as a user writes it: a table's name (any case) or a number,
// which goes to the driver as given. Nothing for anything else.
std::optional<long long> table_index(const std::string& text);
// "a mode table: Still (0), ..., or a number from ...", for messages.
std::string table_index_forms();

// The provided operations, in slot order.
std::vector<std::string> call_names();
// The record a call fills or hands out; null when it fills none.
const RecordLayout* call_record(const std::string& name);

// Empty, with `error` set, when the operation or an argument is wrong.
PreparedCall prepare_call(const std::string& name, const nlohmann::ordered_json& args, ArgumentError& error);

}  // namespace korvanel::tool
