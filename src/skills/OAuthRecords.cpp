#include "OAuthRecords.h"

#include "net/JsonSupport.h"

#include <QJsonArray>
#include <QRegularExpression>

namespace {

using JsonSupport::readOptionalString;

bool readStrings(const QJsonObject &object, QLatin1StringView key, std::optional<QStringList> &out)
{
    const QJsonValue value = object.value(key);
    if (value.isUndefined() || value.isNull())
        return true;
    if (!value.isArray())
        return false;
    QStringList strings;
    for (const QJsonValue &entry : value.toArray()) {
        if (!entry.isString())
            return false;
        strings.append(entry.toString());
    }
    out = strings;
    return true;
}

std::optional<qint64> positiveSeconds(const QJsonValue &value)
{
    constexpr qint64 tenYears = 10LL * 365 * 24 * 3600;
    bool ok = value.isDouble();
    const double number = ok ? value.toDouble() : value.toString().trimmed().toDouble(&ok);
    if (!ok || !(number > 0) || number > double(tenYears))
        return std::nullopt;
    return qint64(number);
}

} // namespace

std::optional<OAuthProtectedResourceMetadata> OAuthProtectedResourceMetadata::fromJson(const QJsonObject &object)
{
    OAuthProtectedResourceMetadata m;
    if (readOptionalString(object, QLatin1String("resource"), m.resource)
        && readStrings(object, QLatin1String("authorization_servers"), m.authorizationServers)
        && readStrings(object, QLatin1String("scopes_supported"), m.scopesSupported))
        return m;
    return std::nullopt;
}

std::optional<OAuthAuthorizationServerMetadata> OAuthAuthorizationServerMetadata::fromJson(const QJsonObject &object)
{
    OAuthAuthorizationServerMetadata m;
    if (readOptionalString(object, QLatin1String("issuer"), m.issuer)
        && readOptionalString(object, QLatin1String("authorization_endpoint"), m.authorizationEndpoint)
        && readOptionalString(object, QLatin1String("token_endpoint"), m.tokenEndpoint)
        && readOptionalString(object, QLatin1String("registration_endpoint"), m.registrationEndpoint)
        && readStrings(object, QLatin1String("scopes_supported"), m.scopesSupported))
        return m;
    return std::nullopt;
}

std::optional<OAuthRegistrationResponse> OAuthRegistrationResponse::fromJson(const QJsonObject &object)
{
    OAuthRegistrationResponse r;
    if (readOptionalString(object, QLatin1String("client_id"), r.clientID)
        && readOptionalString(object, QLatin1String("client_secret"), r.clientSecret))
        return r;
    return std::nullopt;
}

std::optional<OAuthTokenResponse> OAuthTokenResponse::fromJson(const QJsonObject &object)
{
    OAuthTokenResponse r;
    if (readOptionalString(object, QLatin1String("access_token"), r.accessToken)
        && readOptionalString(object, QLatin1String("token_type"), r.tokenType)
        && readOptionalString(object, QLatin1String("refresh_token"), r.refreshToken)) {
        r.expiresIn = positiveSeconds(object.value(QLatin1String("expires_in")));
        return r;
    }
    return std::nullopt;
}

OAuthBearerChallenge OAuthBearerChallenge::fromHeader(const QByteArray &header)
{
    const auto parameter = [text = QString::fromUtf8(header)](const QString &name) -> QString {
        const QRegularExpression pattern(QStringLiteral(R"re((?:^|[\s,])%1\s*=\s*(?:"([^"]*)"|([^\s,]+)))re").arg(name),
            QRegularExpression::CaseInsensitiveOption);
        const QRegularExpressionMatch match = pattern.match(text);
        if (!match.hasMatch())
            return {};
        return match.captured(1).isEmpty() ? match.captured(2) : match.captured(1);
    };
    OAuthBearerChallenge challenge;
    const QString metadata = parameter(QStringLiteral("resource_metadata"));
    if (!metadata.isEmpty())
        challenge.resourceMetadata = metadata;
    challenge.scopes = parameter(QStringLiteral("scope")).split(QLatin1Char(' '), Qt::SkipEmptyParts);
    return challenge;
}
