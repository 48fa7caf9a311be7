#pragma once

#include "net/PublicAddressGuard.h"

#include <QCoroTask>
#include <QObject>

class HttpClient;

// The two built-in web tools: a search of the Romanian encyclopedia and a reader of one web page,
// both returning plain text for the model. The page reader reaches public addresses only (checked
// on every redirect hop) unless KELO_FETCH_ALLOW_PRIVATE=1 lets self-hosters read their own servers.
class WebSkillService : public QObject
{
    Q_OBJECT

public:
    explicit WebSkillService(QObject *parent = nullptr);
    // With a resolver of the caller's own in place of DNS.
    WebSkillService(PublicAddressGuard::Resolver resolver, QObject *parent);
    ~WebSkillService() override;

    QCoro::Task<QString> searchRomanianWeb(QString query);
    QCoro::Task<QString> fetchURL(QString urlString);

    // The page reader's cleaning of a downloaded body: at most 80,000 bytes in, scripts, styles,
    // tags and runs of white space out, at most 14,000 characters back.
    static QString readableText(const QByteArray &body);
    // The model's digest of an encyclopedia search reply: the first five pages, one line each.
    // Throws DecodingError when the reply is not the search document.
    static QString searchDigest(const QByteArray &body);

private:
    HttpClient *m_http;
    PublicAddressGuard m_addressGuard;
};
