#pragma once

#include <QCoroTask>

// Starts a coroutine nobody awaits (a QML click, a timer). Its expected failures are handled inside;
// whatever still escapes is logged rather than lost with the frame or left to end the program.
void startDetached(QCoro::Task<> task);
