#pragma once

#include "CloudVoice.h"

#include <QCoroTask>
#include <QList>
#include <QNetworkRequest>
#include <QObject>

#include <optional>

class HttpClient;

// The Romanian voices each cloud engine offers to an account, for the settings screen. Failures are
// thrown like those of CloudSpeechClient. Lists come back sorted by name.
class CloudVoiceCatalog : public QObject
{
    Q_OBJECT

public:
    explicit CloudVoiceCatalog(QObject *parent = nullptr);

    QCoro::Task<QList<CloudVoice>> googleVoices(QString apiKey);
    QCoro::Task<QList<CloudVoice>> azureVoices(QString apiKey, QString region);
    // Every voice of the account: ElevenLabs voices are multilingual, so none is filtered out.
    QCoro::Task<QList<CloudVoice>> elevenVoices(QString apiKey);

    // The Romanian word for a provider's gender value ("FEMALE", "Male", "neutral"…); nothing when
    // the value is unknown or empty.
    static std::optional<QString> genderLabel(const QString &providerValue);

    // The readers of each provider's voice list; they throw URLError(cannotDecodeContentData) for a
    // body that is not the provider's document.
    static QList<CloudVoice> parseGoogleVoices(const QByteArray &body);
    static QList<CloudVoice> parseAzureVoices(const QByteArray &body);
    static QList<CloudVoice> parseElevenVoices(const QByteArray &body);

private:
    QCoro::Task<QByteArray> fetch(QNetworkRequest request, QString provider);

    HttpClient *m_http;
};
