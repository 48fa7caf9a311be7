#pragma once

#include <QObject>
#include <QString>
#include <QVector>

// A source of captured PCM: the microphone, or a file fed through the same path in tests and the
// command line. Buffers arrive as interleaved float samples in -1…1 at the source's own rate.
class AudioInput : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;
    ~AudioInput() override = default;

    // Starts delivering buffers; throws SpeechRecognitionError(audioFailure) when it cannot.
    virtual void start() = 0;
    // Stops at once; buffers already captured may still be delivered before this returns.
    virtual void stop() = 0;

Q_SIGNALS:
    void bufferCaptured(const QVector<float> &interleaved, int sampleRate, int channels);
    // The source ran out by itself (end of a file, a device that went away).
    void ended();
};
