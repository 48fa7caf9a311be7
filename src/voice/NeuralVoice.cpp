#include "NeuralVoice.h"

#include "net/JsonSupport.h"

std::optional<NeuralVoice> NeuralVoice::fromJson(const QJsonObject &object)
{
    const auto id = JsonSupport::string(object, QLatin1StringView("voice_id"));
    const auto name = JsonSupport::string(object, QLatin1StringView("name"));
    if (!id || !name || id->trimmed().isEmpty())
        return std::nullopt;
    NeuralVoice voice;
    voice.voiceID = *id;
    voice.name = name->trimmed().isEmpty() ? *id : *name;
    voice.category = JsonSupport::string(object, QLatin1StringView("category")).value_or(QString());
    const QJsonObject labels = object.value(QLatin1StringView("labels")).toObject();
    voice.gender = JsonSupport::string(labels, QLatin1StringView("gender")).value_or(QString());
    return voice;
}
