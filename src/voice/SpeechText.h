#pragma once

#include <QString>
#include <QStringList>

// What Kelo does to a text before any engine reads it, and the per-sentence numbers of the local
// engine.
namespace SpeechText {

// Drops reasoning blocks, keeps the text of markdown links, blanks markup characters, turns web
// addresses into the word "link" and collapses white space.
QString cleanForSpeech(const QString &text);

// The trimmed, non-empty sentences of the text; the whole text as one sentence when the boundary
// finder yields none.
QStringList sentences(const QString &text);

// Rate of the sentence at `index` on the phone scale: the first gets a small boost so the answer
// opens briskly; every rate stays within 0.4…0.52.
double utteranceRate(double voiceRate, qsizetype index);

// Qt's rate (-1…1, 0 normal) for a rate on the phone scale (0…1, 0.5 normal), linearly: the whole
// phone scale spans Qt's, so the usable window 0.4…0.52 becomes -0.2…+0.04 and sounds about as
// much slower or faster than normal as it does on the phone.
double qtRate(double phoneRate);

// XML escaping for SSML, ampersand first so that no entity is escaped twice.
QString escapeForSSML(const QString &text);

} // namespace SpeechText
