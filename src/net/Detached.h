#pragma once

#include "KeloError.h"

#include <QCoroTask>
#include <QtGlobal>

// Starts a coroutine nobody awaits (a QML click, a timer). Its expected failures are handled inside;
// whatever still escapes is logged rather than lost with the frame.
inline void startDetached(QCoro::Task<> task)
{
    [](QCoro::Task<> running) -> QCoro::Task<> {
        try {
            co_await std::move(running);
        } catch (...) {
            qWarning("kelo: %s", qPrintable(describeException(std::current_exception())));
        }
    }(std::move(task));
}
