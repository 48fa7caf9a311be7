#include "URLError.h"

URLError::URLError(Code code, QString detail)
    : m_code(code)
    , m_detail(std::move(detail))
{ }

QString URLError::description() const
{
    switch (m_code) {
    case badURL:
        return QStringLiteral("Adresa URL nu este validă.");
    case badServerResponse:
        return QStringLiteral("Serverul a trimis un răspuns greșit.");
    case cannotDecodeContentData:
        return QStringLiteral("Datele primite nu au putut fi decodate.");
    case timedOut:
        return QStringLiteral("Cererea a expirat: serverul nu a răspuns la timp.");
    case cannotFindHost:
        return QStringLiteral("Serverul nu a fost găsit.");
    case cannotConnectToHost:
        return QStringLiteral("Nu mă pot conecta la server.");
    case networkConnectionLost:
        return QStringLiteral("Conexiunea la rețea s-a întrerupt.");
    case notConnectedToInternet:
        return QStringLiteral("Nu există conexiune la internet.");
    case secureConnectionFailed:
        return QStringLiteral("Conexiunea securizată cu serverul a eșuat.");
    case cancelled:
        return QStringLiteral("Cererea a fost anulată.");
    case dataLengthExceedsMaximum:
        return QStringLiteral("Răspunsul serverului este prea mare.");
    case httpTooManyRedirects:
        return QStringLiteral("Serverul a redirecționat cererea de prea multe ori.");
    case appTransportSecurityRequiresSecureConnection:
        return QStringLiteral("Serverul a vrut să mute cererea de pe o conexiune securizată (https) pe una "
                              "nesecurizată (http); am refuzat.");
    case unknown:
        break;
    }
    return m_detail.isEmpty() ? QStringLiteral("Eroare de rețea necunoscută.")
                              : QStringLiteral("Eroare de rețea: %1").arg(m_detail);
}

URLError URLError::fromNetworkError(QNetworkReply::NetworkError error, const QString &detail)
{
    switch (error) {
    case QNetworkReply::ConnectionRefusedError:
        return URLError(cannotConnectToHost, detail);
    case QNetworkReply::HostNotFoundError:
        return URLError(cannotFindHost, detail);
    case QNetworkReply::TimeoutError:
        return URLError(timedOut, detail);
    case QNetworkReply::OperationCanceledError:
        return URLError(cancelled, detail);
    case QNetworkReply::RemoteHostClosedError:
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::NetworkSessionFailedError:
        return URLError(networkConnectionLost, detail);
    case QNetworkReply::SslHandshakeFailedError:
        return URLError(secureConnectionFailed, detail);
    case QNetworkReply::BackgroundRequestNotAllowedError:
        return URLError(notConnectedToInternet, detail);
    case QNetworkReply::ProtocolUnknownError:
    case QNetworkReply::ProtocolInvalidOperationError:
        return URLError(badURL, detail);
    case QNetworkReply::ProtocolFailure:
        return URLError(badServerResponse, detail);
    default:
        return URLError(unknown, detail);
    }
}
