#pragma once

#include <QCoroTask>
#include <QEventLoop>
#include <QTimer>

#include <exception>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <variant>

// Runs a coroutine to its end inside a test, with an event loop and a time-out. The task's
// exception is rethrown here (QCoro::waitFor would hang on a throwing task).
namespace AsyncTest {

template<typename T> T await(QCoro::Task<T> task, int timeoutMs = 30'000)
{
    std::optional<std::conditional_t<std::is_void_v<T>, std::monostate, T>> result;
    std::exception_ptr error;
    QEventLoop loop;
    auto runner = [&]() -> QCoro::Task<> {
        try {
            if constexpr (std::is_void_v<T>) {
                co_await std::move(task);
                result.emplace();
            } else {
                T value = co_await std::move(task);
                result.emplace(std::move(value));
            }
        } catch (...) {
            error = std::current_exception();
        }
        loop.quit();
    };
    auto running = runner();
    if (!result && !error) {
        QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
        loop.exec();
    }
    if (error)
        std::rethrow_exception(error);
    if (!result)
        throw std::runtime_error("the awaited task did not finish in time");
    if constexpr (!std::is_void_v<T>)
        return std::move(*result);
}

// The error of type E the task threw, or nothing when it succeeded or threw something else
// (anything else is rethrown so the test shows it).
template<typename E, typename T> std::optional<E> awaitError(QCoro::Task<T> task, int timeoutMs = 30'000)
{
    try {
        await(std::move(task), timeoutMs);
    } catch (const E &e) {
        return e;
    }
    return std::nullopt;
}

// Spins the event loop until the condition holds or the time runs out.
template<typename Condition> bool waitUntil(Condition condition, int timeoutMs = 10'000)
{
    if (condition())
        return true;
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (condition())
            loop.quit();
    });
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    poll.start(5);
    loop.exec();
    return condition();
}

} // namespace AsyncTest
