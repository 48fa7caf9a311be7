#include "MCPGalleryItem.h"

namespace {

QList<MCPGalleryItem> makeGallery()
{
    const QString googleNote
        = QStringLiteral("Google OAuth. Poate necesita un OAuth Client configurat pentru redirect-ul Kelo.");
    return {
        { QStringLiteral("linear"), QStringLiteral("Linear"), QStringLiteral("Issues, proiecte și echipe"),
            QStringLiteral("https://mcp.linear.app/mcp"), QStringLiteral("checkmark.circle"), QStringLiteral("violet"),
            {}, QStringLiteral("OAuth 2.1. Kelo încearcă Dynamic Client Registration când serverul îl oferă.") },
        { QStringLiteral("github"), QStringLiteral("GitHub"), QStringLiteral("Repo-uri, issues și pull requests"),
            QStringLiteral("https://api.githubcopilot.com/mcp/"),
            QStringLiteral("chevron.left.forwardslash.chevron.right"), QStringLiteral("blue"), {},
            QStringLiteral("OAuth/PAT. Dacă serverul nu permite înregistrare dinamică, introdu Client ID-ul aplicației "
                           "tale GitHub.") },
        { QStringLiteral("slack"), QStringLiteral("Slack"), QStringLiteral("Canale, mesaje și căutare"),
            QStringLiteral("https://mcp.slack.com/mcp"), QStringLiteral("number"), QStringLiteral("pink"), {},
            QStringLiteral("OAuth. Slack poate necesita un Client ID/Secret dintr-o aplicație Slack configurată.") },
        { QStringLiteral("google-drive"), QStringLiteral("Google Drive"), QStringLiteral("Fișiere și documente Drive"),
            QStringLiteral("https://drivemcp.googleapis.com/mcp/v1"), QStringLiteral("folder"), QStringLiteral("green"),
            { QStringLiteral("https://www.googleapis.com/auth/drive.readonly") },
            QStringLiteral(
                "Google OAuth. Disponibilitatea endpointului depinde de cont și de configurația Workspace.") },
        { QStringLiteral("gmail"), QStringLiteral("Gmail"), QStringLiteral("Caută și citește emailuri"),
            QStringLiteral("https://gmailmcp.googleapis.com/mcp/v1"), QStringLiteral("envelope"), QStringLiteral("red"),
            { QStringLiteral("https://www.googleapis.com/auth/gmail.readonly") }, googleNote },
        { QStringLiteral("google-calendar"), QStringLiteral("Google Calendar"),
            QStringLiteral("Calendar și evenimente"), QStringLiteral("https://calendarmcp.googleapis.com/mcp/v1"),
            QStringLiteral("calendar"), QStringLiteral("cyan"),
            { QStringLiteral("https://www.googleapis.com/auth/calendar.readonly") }, googleNote },
    };
}

} // namespace

const QList<MCPGalleryItem> &MCPGalleryItem::gallery()
{
    static const QList<MCPGalleryItem> items = makeGallery();
    return items;
}

const MCPGalleryItem *MCPGalleryItem::find(const QString &id)
{
    for (const MCPGalleryItem &item : gallery()) {
        if (item.id == id)
            return &item;
    }
    return nullptr;
}
