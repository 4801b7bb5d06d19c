// SPDX-License-Identifier: MIT
//
// What a command has found out: lines for people, or one JSON document for programs.
#ifndef CARDTOOL_REPORT_H
#define CARDTOOL_REPORT_H

#include <string>

#include "tools/cardtool/arguments.h"
#include "tools/cardtool/failure.h"
#include "tools/cardtool/fields.h"
#include "tools/cardtool/files.h"

class Report {
public:
    Report(Output& results, bool json) : results_(results), json_(json) {}

    bool json() const { return json_; }
    Output& output() { return results_; }
    // For people, at once; nothing when programs are to read it.
    void Say(const std::string& text);
    // For programs, at the end. Null stays null until something is known.
    Json result = nullptr;

    // A document of its own for what `result` holds, at once and on one line: for a command
    // that goes on. It takes the place of the last document, but not of a failure's.
    void Event(const Arguments& arguments);
    // The document, once; `failure` is null when all went well.
    void Finish(const Arguments& arguments, const Failure* failure);

private:
    void WriteDocument(const Arguments& arguments, const Failure* failure);

    Output& results_;
    bool json_;
    bool finished_ = false;
    bool has_events_ = false;
};

#endif
