#pragma once

#include <QCoroTask>

// Starts a coroutine nobody awaits. An exception that escapes it is logged, never lost in silence
// and never left to end the program.
void detached(QCoro::Task<> task);
