#pragma once

#include "conversation/ChatMessage.h"

#include <QCoroTask>
#include <QObject>

#include <optional>

class ChatStore;

// Runs one turn of the store from the terminal: tool status lines go to stderr while tools run, and
// the assistant message the turn appended is handed back as soon as it exists.
class TurnRunner : public QObject
{
    Q_OBJECT

public:
    struct Outcome
    {
        std::optional<ChatMessage> reply;
        bool answered = false;
    };

    explicit TurnRunner(ChatStore &store);

    QCoro::Task<Outcome> run(QString text);
    // Waits until the answer has been spoken (when the turn started speaking it).
    QCoro::Task<> waitForSpeech();

Q_SIGNALS:
    // The turn's assistant message, before memory compaction (which may still run) ends.
    void replied(const ChatMessage &message, bool answered);

private:
    ChatStore &m_store;
};
