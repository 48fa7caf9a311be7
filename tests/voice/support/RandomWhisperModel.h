#pragma once

#include <QString>

// Writes a whisper model file with random weights: the real file layout (header, mel filters,
// vocabulary, every tensor of the encoder and decoder) at shapes chosen by the caller. The text it
// produces is meaningless, but loading, threading and timing are those of a real model.
namespace RandomWhisperModel {

struct Shape
{
    int nVocab = 51865;
    int nAudioCtx = 1500, nAudioState = 64, nAudioHead = 2, nAudioLayer = 2;
    int nTextCtx = 448, nTextHead = 2, nTextLayer = 2;
    int nMels = 80;
    int ftype = 1; // big matrices in 16-bit floats, as the published models are
};

Shape tiny(); // small and quick to load: for tests
Shape base(); // the dimensions of the published "base" model (74 M parameters)

// Throws std::runtime_error when the file cannot be written.
void write(const QString &path, const Shape &shape, unsigned seed = 1);

} // namespace RandomWhisperModel
