#pragma once

#include <QString>

namespace TranscriptText {

// Romanian spelled with comma-below letters (ș, ț), single spaces, no blanks at the ends. Models
// trained on older text often produce the cedilla forms (ş, ţ), which look alike but compare unequal.
QString normalised(const QString &text);

} // namespace TranscriptText
