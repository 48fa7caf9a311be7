#pragma once

#include <QString>
#include <QVector>

// PCM read from a RIFF/WAVE file: 8/16/24/32-bit integer or 32-bit float, any rate and channel count.
struct WavFile
{
    QVector<float> interleaved;
    int sampleRate = 0;
    int channels = 0;

    qsizetype frames() const { return channels > 0 ? interleaved.size() / channels : 0; }

    // Throws SpeechRecognitionError(audioFailure) with a Romanian reason when the file is unusable.
    static WavFile read(const QString &path);
    static WavFile parse(const QByteArray &bytes);
};
