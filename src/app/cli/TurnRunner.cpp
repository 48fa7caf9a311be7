#include "TurnRunner.h"

#include "Terminal.h"
#include "conversation/ChatStore.h"
#include "voice/SpeechService.h"

#include <QCoroTimer>
#include <QScopeGuard>

TurnRunner::TurnRunner(ChatStore &store)
    : m_store(store)
{
}

QCoro::Task<TurnRunner::Outcome> TurnRunner::run(QString text)
{
    Outcome outcome;
    const auto appended = connect(&m_store, &ChatStore::messageAppended, this, [&outcome](const ChatMessage &message) {
        if (message.role == ChatMessage::Role::assistant)
            outcome.reply = message;
    });
    const auto finished = connect(&m_store, &ChatStore::turnFinished, this, [this, &outcome](bool answered) {
        outcome.answered = answered;
        if (outcome.reply)
            Q_EMIT replied(*outcome.reply, answered);
    });
    const auto status = connect(&m_store, &ChatStore::toolStatusChanged, this, [this] {
        if (!m_store.toolStatus().isEmpty())
            Terminal::err(QStringLiteral("  · ") + m_store.toolStatus());
    });
    const auto disconnectAll = qScopeGuard([&] {
        disconnect(appended);
        disconnect(finished);
        disconnect(status);
    });
    co_await m_store.send(text);
    co_return outcome;
}

QCoro::Task<> TurnRunner::waitForSpeech()
{
    SpeechService *speech = m_store.speech();
    // Polled rather than awaited on the change signal: the speaking state flips several times in one
    // event-loop pass and a terminal does not need a faster answer than this.
    while (speech->isSpeaking() || speech->isPreparingVoice())
        co_await QCoro::sleepFor(std::chrono::milliseconds(50));
}
