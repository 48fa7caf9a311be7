#pragma once

#include "conversation/ChatMessage.h"

#include <QCoroTask>
#include <QObject>

#include <optional>

class ChatStore;

// Runs turns of the store from the terminal: tool status lines go to stderr while tools run, and the
// answer goes to stdout as it is written — for typed turns and for the turns the store starts itself
// from a spoken transcript. What a turn prints in total is its last assistant message and a line end.
class TurnRunner : public QObject
{
    Q_OBJECT

public:
    struct Outcome
    {
        std::optional<ChatMessage> reply;
        bool answered = false;
    };

    // `answerPrefix` starts every printed answer ("Kelo: " in a conversation).
    explicit TurnRunner(ChatStore &store, QString answerPrefix = {});

    QCoro::Task<Outcome> run(QString text);
    // Push-to-talk: listens until `released` completes, then waits for the turn the transcript
    // started (if any). False when listening could not start.
    QCoro::Task<bool> talk(std::function<QCoro::Task<>()> released);
    // Waits until the answer has been spoken (when the turn started speaking it).
    QCoro::Task<> waitForSpeech();
    // Waits until the conversation memory is on disk; why it could not be saved, empty when it was.
    QString memorySaveError() const;

Q_SIGNALS:
    // Push-to-talk started: the microphone is on.
    void listening();
    // The user's words as the recogniser heard them, when a spoken turn starts.
    void heard(const QString &text);

private:
    void printGrowingAnswer(const QString &visible);
    void printReply(const ChatMessage &reply);

    ChatStore &m_store;
    QString m_answerPrefix;
    // What of the answer being written is on stdout already (trailing white space held back).
    std::optional<QString> m_printed;
    std::optional<ChatMessage> m_reply;
    Outcome m_lastOutcome;
};
