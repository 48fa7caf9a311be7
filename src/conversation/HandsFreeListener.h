#pragma once

#include <QCoroTask>
#include <QElapsedTimer>
#include <QObject>

#include <functional>

class AppSettings;
class QTimer;
class SpeechRecognizer;

// After a spoken turn has been answered aloud, listens again without a press: a pause after speech
// ends the run (its transcript starts the next turn), and a run in which nobody speaks gives up.
class HandsFreeListener : public QObject
{
    Q_OBJECT

public:
    // `mayListen` says whether the store is free for a new turn (no turn running, nothing spoken, a key set…).
    HandsFreeListener(SpeechRecognizer *recognizer, AppSettings *settings, std::function<bool()> mayListen,
        QObject *parent = nullptr);

    // Whether the next playback end starts listening: the last turn came from the microphone.
    void setArmed(bool armed) { m_armed = armed; }
    bool isArmed() const { return m_armed; }
    // Ends a run this listener started (a press, a transcript that arrived).
    void stop();
    // The answer has been spoken: listen shortly after, if armed and still free.
    void playbackFinished();

private:
    QCoro::Task<> listen();
    void watchSilence();

    SpeechRecognizer *m_speech;
    AppSettings *m_settings;
    std::function<bool()> m_mayListen;
    QTimer *m_watch;
    QElapsedTimer m_clock;
    qint64 m_lastVoiceAtMs = -1;
    bool m_armed = false;
    bool m_running = false;
};
