#include "TurnRunner.h"

#include "Terminal.h"
#include "conversation/ChatStore.h"
#include "conversation/ConversationMemoryStore.h"
#include "system/SignalWait.h"
#include "voice/SpeechRecognizer.h"
#include "voice/SpeechSynthesizer.h"

TurnRunner::TurnRunner(ChatStore &store, QString answerPrefix)
    : m_store(store)
    , m_answerPrefix(std::move(answerPrefix))
{
    connect(&m_store, &ChatStore::answerGrew, this, &TurnRunner::printGrowingAnswer);
    connect(&m_store, &ChatStore::messageAppended, this, [this](const ChatMessage &message) {
        if (message.role == ChatMessage::Role::assistant)
            m_reply = message;
        else if (message.role == ChatMessage::Role::user)
            m_reply.reset();
    });
    connect(&m_store, &ChatStore::turnFinished, this, [this](bool answered) {
        m_lastOutcome = { m_reply, answered };
        if (m_reply)
            printReply(*m_reply);
        m_printed.reset();
    });
    connect(&m_store, &ChatStore::toolStatusChanged, this, [this] {
        if (!m_store.toolStatus().isEmpty())
            Terminal::err(QStringLiteral("  · ") + m_store.toolStatus());
    });
}

void TurnRunner::printGrowingAnswer(const QString &visible)
{
    QString shown = visible;
    while (!shown.isEmpty() && shown.back().isSpace())
        shown.chop(1);
    const QString printed = m_printed.value_or(QString());
    // A round that ends in tool calls drops its text; what is on the terminal stays, and the final
    // answer follows on its own line.
    if (shown.isEmpty() || !shown.startsWith(printed))
        return;
    if (!m_printed)
        Terminal::outInline(m_answerPrefix);
    Terminal::outInline(shown.mid(printed.size()));
    m_printed = shown;
}

void TurnRunner::printReply(const ChatMessage &reply)
{
    if (m_printed && reply.text.startsWith(*m_printed)) {
        Terminal::out(reply.text.mid(m_printed->size()));
        return;
    }
    // A failure message after the part of the answer that arrived, or a reply never streamed.
    if (m_printed)
        Terminal::out({});
    Terminal::out(m_answerPrefix + reply.text);
}

QCoro::Task<TurnRunner::Outcome> TurnRunner::run(QString text)
{
    m_lastOutcome = {};
    co_await m_store.send(text);
    co_return Outcome(m_lastOutcome);
}

QCoro::Task<bool> TurnRunner::talk(std::function<QCoro::Task<>()> released)
{
    SpeechRecognizer *speech = m_store.recognizer();
    co_await m_store.beginPushToTalk();
    if (!m_store.isPushToTalkActive())
        co_return false;
    Q_EMIT listening();

    const auto partials = connect(speech, &SpeechRecognizer::transcriptChanged, this, [speech] {
        if (Terminal::stderrIsTerminal() && !speech->transcript().isEmpty())
            Terminal::errInline(QStringLiteral("\r\033[K  … ") + speech->transcript());
    });
    const auto spoken = connect(&m_store, &ChatStore::messageAppended, this, [this](const ChatMessage &message) {
        if (message.role == ChatMessage::Role::user)
            Q_EMIT heard(message.text);
    });
    co_await released();
    co_await m_store.endPushToTalk();
    // The final transcript starts the turn in the same pass that ends listening, so there is no
    // moment in which both are false before the turn is over.
    co_await SignalWait::until(
        &m_store, [&] { return !speech->isListening() && !m_store.isThinking(); }, &ChatStore::changed);
    disconnect(partials);
    disconnect(spoken);
    if (Terminal::stderrIsTerminal())
        Terminal::errInline(QStringLiteral("\r\033[K"));
    co_return true;
}

QCoro::Task<> TurnRunner::waitForSpeech()
{
    SpeechSynthesizer *speech = m_store.synthesizer();
    co_await SignalWait::until(
        speech, [speech] { return !speech->isSpeaking() && !speech->isPreparingVoice(); }, &SpeechSynthesizer::changed);
}

QString TurnRunner::memorySaveError() const
{
    ConversationMemoryStore *memory = m_store.memory();
    memory->waitForWrites();
    return memory->saveError();
}
