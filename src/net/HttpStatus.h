#pragma once

#include <QString>

// The standard reason phrase of an HTTP status, in lower case ("not found"), used where a server
// gives no message of its own.
QString httpStatusPhrase(int status);
