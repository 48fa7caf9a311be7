#include "Detached.h"

#include "KeloError.h"

#include <QtGlobal>

namespace {
QCoro::Task<> awaitAndLog(QCoro::Task<> task)
{
    try {
        co_await std::move(task);
    } catch (...) {
        qWarning("kelo: %s", qPrintable(describeException(std::current_exception())));
    }
}
} // namespace

void startDetached(QCoro::Task<> task)
{
    awaitAndLog(std::move(task));
}
