#include "HandsFreeListener.h"

#include "net/Detached.h"
#include "settings/AppSettings.h"
#include "voice/SpeechRecognizer.h"

#include <QTimer>

namespace {
constexpr int startDelayMs = 600;
constexpr qint64 pauseMs = 1200;
constexpr qint64 noSpeechMs = 8000;
constexpr double speechLevel = 0.08;
} // namespace

HandsFreeListener::HandsFreeListener(
    SpeechRecognizer *recognizer, AppSettings *settings, std::function<bool()> mayListen, QObject *parent)
    : QObject(parent)
    , m_speech(recognizer)
    , m_settings(settings)
    , m_mayListen(std::move(mayListen))
    , m_watch(new QTimer(this))
{
    m_watch->setInterval(100);
    connect(m_watch, &QTimer::timeout, this, &HandsFreeListener::watchSilence);
}

void HandsFreeListener::stop()
{
    m_running = false;
    m_watch->stop();
}

void HandsFreeListener::playbackFinished()
{
    if (!m_armed)
        return;
    QTimer::singleShot(startDelayMs, this, [this] {
        if (!m_armed || m_speech->isListening() || !m_mayListen())
            return;
        m_armed = false;
        startDetached(listen());
    });
}

QCoro::Task<> HandsFreeListener::listen()
{
    co_await m_speech->startListening(m_settings->preferOnDeviceSpeech(), true);
    if (!m_speech->isListening())
        co_return;
    m_running = true;
    m_clock.start();
    m_lastVoiceAtMs = -1;
    m_watch->start();
}

void HandsFreeListener::watchSilence()
{
    if (!m_running || !m_speech->isListening()) {
        stop();
        return;
    }
    const qint64 now = m_clock.elapsed();
    if (m_speech->inputLevel() >= speechLevel)
        m_lastVoiceAtMs = now;
    if (m_lastVoiceAtMs >= 0 && now - m_lastVoiceAtMs >= pauseMs) {
        stop();
        m_speech->finishListening();
    } else if (m_lastVoiceAtMs < 0 && now >= noSpeechMs) {
        stop();
        m_speech->cancelListening();
    }
}
