#pragma once

#include "CloudVoice.h"
#include "settings/Presets.h"

#include <QByteArray>
#include <QList>
#include <QNetworkRequest>
#include <QString>

#include <optional>

class AppSettings;

// What a cloud voice needs from the settings, trimmed.
struct CloudVoiceCredentials
{
    QString apiKey;
    QString region;
    QString voice;
};

// Everything that differs between the cloud voices, in one row per engine: which settings it
// needs and how it says so, how a synthesis request is built and its audio read back, and how its
// voice list is asked for and read. Adding an engine means adding a row.
struct CloudVoiceProvider
{
    VoiceEnginePreset engine;
    // Named in refusals ("Google Cloud").
    QString name;
    CloudVoiceCredentials (*credentials)(const AppSettings &settings);
    // The Romanian text naming what is missing, or an empty string when the settings suffice.
    QString (*missingForSpeech)(const CloudVoiceCredentials &credentials);
    QString (*missingForVoiceList)(const CloudVoiceCredentials &credentials);
    // Throw URLError(badURL) for credentials that cannot make a safe address.
    QNetworkRequest (*synthesisRequest)(const CloudVoiceCredentials &credentials);
    QByteArray (*synthesisBody)(const QString &text, const CloudVoiceCredentials &credentials);
    // The MP3 in a successful answer; throws URLError(cannotDecodeContentData) when there is none.
    QByteArray (*audioFromReply)(const QByteArray &body);
    QNetworkRequest (*voiceListRequest)(const CloudVoiceCredentials &credentials);
    // Romanian voices sorted by name; throws URLError(cannotDecodeContentData) for a body that is
    // not the provider's document.
    QList<CloudVoice> (*parseVoiceList)(const QByteArray &body);

    static const QList<CloudVoiceProvider> &all();
    // Nothing for the local engine.
    static const CloudVoiceProvider *forEngine(VoiceEnginePreset engine);

    // The Romanian word for a provider's gender value ("FEMALE", "Male", "neutral"…).
    static std::optional<QString> genderLabel(const QString &providerValue);
};
