#include "ConfigCommand.h"

#include "CliArguments.h"
#include "CliSession.h"
#include "Terminal.h"
#include "conversation/ChatStore.h"
#include "settings/AppSettings.h"

#include <QJsonDocument>
#include <QMetaProperty>

namespace {

const QStringList secretProperties { QStringLiteral("zenAPIKey"), QStringLiteral("googleTTSAPIKey"),
    QStringLiteral("azureSpeechKey"), QStringLiteral("elevenAPIKey") };

QList<QMetaProperty> settingProperties()
{
    const QMetaObject &meta = AppSettings::staticMetaObject;
    QList<QMetaProperty> properties;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i)
        properties.append(meta.property(i));
    return properties;
}

std::optional<QMetaProperty> findProperty(const QString &name)
{
    for (const QMetaProperty &property : settingProperties()) {
        if (QLatin1String(property.name()) == name)
            return property;
    }
    return std::nullopt;
}

QString mask(const QString &secret)
{
    if (secret.isEmpty())
        return {};
    if (secret.size() <= 8)
        return QStringLiteral("••••");
    return QStringLiteral("••••") + secret.right(4);
}

// The raw values a preset setting accepts, or nothing for other settings.
std::optional<QStringList> allowedValues(const QString &name)
{
    QStringList values;
    if (name == QLatin1String("personality")) {
        for (auto preset : Presets::allPersonalities())
            values.append(Presets::rawValue(preset));
    } else if (name == QLatin1String("responseLength")) {
        for (auto preset : Presets::allResponseLengths())
            values.append(Presets::rawValue(preset));
    } else if (name == QLatin1String("voiceEngine")) {
        for (auto preset : Presets::allVoiceEngines())
            values.append(Presets::rawValue(preset));
    } else {
        return std::nullopt;
    }
    return values;
}

std::optional<bool> parseBool(const QString &text)
{
    const QString value = text.trimmed().toLower();
    if (value == QLatin1String("true") || value == QLatin1String("da") || value == QLatin1String("1")
        || value == QLatin1String("on"))
        return true;
    if (value == QLatin1String("false") || value == QLatin1String("nu") || value == QLatin1String("0")
        || value == QLatin1String("off"))
        return false;
    return std::nullopt;
}

QString serversJson(const AppSettings &settings, bool showSecrets)
{
    QList<MCPServerConfig> servers = settings.mcpServers();
    if (!showSecrets) {
        for (MCPServerConfig &server : servers) {
            server.bearerToken = mask(server.bearerToken);
            server.oauth.refreshToken = mask(server.oauth.refreshToken);
            server.oauth.clientSecret = mask(server.oauth.clientSecret);
        }
    }
    return QString::fromUtf8(QJsonDocument(MCPServerConfig::listToJson(servers)).toJson(QJsonDocument::Compact));
}

} // namespace

QString ConfigCommand::summary() const
{
    return QStringLiteral("citește și schimbă setările");
}

QString ConfigCommand::usage() const
{
    QStringList names;
    for (const QMetaProperty &property : settingProperties())
        names.append(QLatin1String(property.name()));
    return QStringLiteral(
               "Utilizare: kelo config list [--show-secrets]\n"
               "           kelo config get KEY [--show-secrets]\n"
               "           kelo config set KEY VALUE\n"
               "\n"
               "Cheile sunt numele setărilor; valorile presetărilor sunt titlurile lor (de ex. Echilibrat),\n"
               "valorile logice true/false. Cheile API sunt mascate fără --show-secrets.\n"
               "\n"
               "Setări: ")
        + names.join(QStringLiteral(", "));
}

QString ConfigCommand::display(const AppSettings &settings, const QMetaProperty &property, bool showSecrets)
{
    const QString name = QLatin1String(property.name());
    if (name == QLatin1String("mcpServers"))
        return serversJson(settings, showSecrets);
    const QVariant value = property.read(&settings);
    if (value.typeId() == QMetaType::Bool)
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    if (value.typeId() == QMetaType::Double)
        return QString::number(value.toDouble(), 'g', 12);
    const QString text = value.toString();
    return secretProperties.contains(name) && !showSecrets ? mask(text) : text;
}

int ConfigCommand::set(AppSettings &settings, const QMetaProperty &property, const QString &value)
{
    const QString name = QLatin1String(property.name());
    if (!property.isWritable()) {
        Terminal::err(name == QLatin1String("mcpServers")
                ? QStringLiteral("Serverele MCP se schimbă cu „kelo mcp”.")
                : QStringLiteral("Setarea %1 nu poate fi schimbată.").arg(name));
        return ExitCode::usage;
    }
    if (const auto allowed = allowedValues(name); allowed && !allowed->contains(value)) {
        Terminal::err(QStringLiteral("Valoare necunoscută pentru %1: „%2”. Valori posibile: %3")
                          .arg(name, value, allowed->join(QStringLiteral(", "))));
        return ExitCode::usage;
    }
    QVariant converted;
    if (property.typeId() == QMetaType::Bool) {
        const auto parsed = parseBool(value);
        if (!parsed) {
            Terminal::err(QStringLiteral("%1 acceptă true sau false.").arg(name));
            return ExitCode::usage;
        }
        converted = *parsed;
    } else if (property.typeId() == QMetaType::Double) {
        bool ok = false;
        const double number = QString(value).replace(QLatin1Char(','), QLatin1Char('.')).toDouble(&ok);
        if (!ok) {
            Terminal::err(QStringLiteral("%1 acceptă un număr, de exemplu 0.45.").arg(name));
            return ExitCode::usage;
        }
        converted = number;
    } else {
        converted = value;
    }
    if (const auto reason = AppSettings::invalidValueReason(name, converted)) {
        Terminal::err(*reason);
        return ExitCode::usage;
    }
    if (!property.write(&settings, converted)) {
        Terminal::err(QStringLiteral("Setarea %1 nu a putut fi schimbată.").arg(name));
        return ExitCode::failure;
    }
    return CliSession::changeSaved(settings);
}

QCoro::Task<int> ConfigCommand::run(CliSession &session, QStringList arguments)
{
    const auto args = CliArguments::parseOrReport(arguments, { { QStringLiteral("--show-secrets") } });
    if (!args)
        co_return ExitCode::usage;
    if (args->positional.isEmpty()) {
        Terminal::err(usage());
        co_return ExitCode::usage;
    }
    const QString action = args->positional.first();
    const bool showSecrets = args->has(QStringLiteral("--show-secrets"));
    AppSettings &settings = *session.store().settings();

    if (action == QLatin1String("list") && args->positional.size() == 1) {
        for (const QMetaProperty &property : settingProperties())
            Terminal::out(QStringLiteral("%1 = %2").arg(
                QLatin1String(property.name()), display(settings, property, showSecrets)));
        co_return ExitCode::success;
    }
    const bool isGet = action == QLatin1String("get") && args->positional.size() == 2;
    const bool isSet = action == QLatin1String("set") && args->positional.size() == 3;
    if (!isGet && !isSet) {
        Terminal::err(usage());
        co_return ExitCode::usage;
    }
    const auto property = findProperty(args->positional.at(1));
    if (!property) {
        Terminal::err(QStringLiteral("Setare necunoscută: %1. Vezi „kelo config list”.").arg(args->positional.at(1)));
        co_return ExitCode::usage;
    }
    if (isGet) {
        Terminal::out(display(settings, *property, showSecrets));
        co_return ExitCode::success;
    }
    co_return set(settings, *property, args->positional.at(2));
}

QStringList ConfigCommand::completions(const QStringList &previous) const
{
    QStringList typed = previous;
    typed.removeAll(QStringLiteral("--show-secrets"));
    if (typed.isEmpty())
        return { QStringLiteral("list"), QStringLiteral("get"), QStringLiteral("set") };
    const QString action = typed.first();
    if (typed.size() == 1 && (action == QLatin1String("get") || action == QLatin1String("set"))) {
        QStringList names;
        for (const QMetaProperty &property : settingProperties()) {
            if (property.isWritable() || action == QLatin1String("get"))
                names.append(QLatin1String(property.name()));
        }
        return names;
    }
    if (typed.size() == 2 && action == QLatin1String("set")) {
        const auto property = findProperty(typed.at(1));
        if (property && property->metaType().id() == QMetaType::Bool)
            return { QStringLiteral("true"), QStringLiteral("false") };
        return allowedValues(typed.at(1)).value_or(QStringList());
    }
    if (action != QLatin1String("set"))
        return { QStringLiteral("--show-secrets") };
    return {};
}
