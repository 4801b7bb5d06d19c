// SPDX-License-Identifier: MIT
//
// SIGINT and SIGTERM. A request to a driver is never cut short by them: they are held
// back, and looked for between requests and while files are waited for.
#ifndef CARDTOOL_INTERRUPT_H
#define CARDTOOL_INTERRUPT_H

// From here on, on this thread and those it starts.
void HoldSignals();

// Whether the user wants the tool to end.
bool Interrupted();

// Wait until the descriptor is ready for poll's `events`, or for so many milliseconds
// when there is no descriptor to wait for (events 0). False when the user ends the
// wait; what is ready at once needs none.
bool WaitFor(int fd, short events, int milliseconds = -1);

#endif
