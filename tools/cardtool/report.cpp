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

void Report::Event(const Arguments& arguments)
{
    if (json_) {
        has_events_ = true;
        WriteDocument(arguments, nullptr);
        result = nullptr;
    }
}

void Report::Finish(const Arguments& arguments, const Failure* failure)
{
    if (!json_ || finished_) {
        return;
    }
    finished_ = true;
    if (failure != nullptr || !has_events_) {
        WriteDocument(arguments, failure);
    }
}

void Report::WriteDocument(const Arguments& arguments, const Failure* failure)
{
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
    // A stream is read line by line, so that its failures stand on one line, too.
    const int indent = arguments.command == Command::Watch ? -1 : 2;
    // Plain ASCII, whatever bytes a path has: nothing can reach a terminal raw.
    results_.Write(document.dump(indent, ' ', true, Json::error_handler_t::replace) + "\n");
}
