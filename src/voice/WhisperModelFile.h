#pragma once

#include <QString>

// What the header of a whisper model file says, after the whole file was walked and every record
// found complete and plausible. whisper.cpp trusts the sizes it reads, so nothing reaches it unchecked.
struct WhisperModelFile
{
    QString path;
    qint64 size = 0;
    int nVocab = 0;
    int nAudioCtx = 0;
    int nAudioState = 0;
    int nAudioHead = 0;
    int nAudioLayer = 0;
    int nTextCtx = 0;
    int nTextLayer = 0;
    int nMels = 0;
    int tensorCount = 0;

    // Multilingual vocabularies have 51,865 tokens or more; English-only ones have 51,864.
    bool isMultilingual() const { return nVocab >= 51865; }

    // Throws SpeechRecognitionError: modelMissing, modelInvalid (bad magic, truncated, implausible
    // sizes) or modelEnglishOnly.
    static WhisperModelFile inspect(const QString &path);
};
