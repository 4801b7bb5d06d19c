// SPDX-License-Identifier: MIT
#include "tools/cardtool/report.h"

#include "tools/cardtool/table.h"

namespace {

Json ErrorJson(const Failure& failure)
{
    return {{"code", static_cast<int>(failure.code())},
            {"name", NameOf(failure.code())},
            {"message", failure.what()},
            {"hint", failure.next()}};
}

Json CommandName(const Arguments& arguments)
{
    for (const CommandEntry& entry : Commands()) {
        if (arguments.command == entry.command) {
            return entry.name;
        }
    }
    return nullptr;
}

}  // namespace

void Report::Say(const std::string& text)
{
    if (!json_) {
        results_.Write(text);
    }
}

void Report::Finish(const Arguments& arguments, const Failure* failure)
{
    if (!json_ || finished_) {
        return;
    }
    finished_ = true;
    Json document;
    document["format"] = 1;
    document["tool"] = "cardtool";
    document["version"] = CARDTOOL_VERSION;
    document["command"] = CommandName(arguments);
    document["device"] = arguments.device.empty() ? Json() : Json(arguments.device);
    document["simulated"] = !arguments.sim.empty();
    document["ok"] = failure == nullptr;
    document["error"] = failure == nullptr ? Json() : ErrorJson(*failure);
    document["result"] = result;
    // Plain ASCII, whatever bytes a path has: nothing can reach a terminal raw.
    results_.Write(document.dump(2, ' ', true, Json::error_handler_t::replace) + "\n");
}
