.pragma library

// Pure rules of the companion's views: what the orb shows, which texts appear, how the engine cards
// and the gallery read. Kept free of QML items so that tests can call them with plain objects.

var moods = ["idle", "listening", "thinking", "searching", "speaking"]

function hasText(value) {
    return value !== undefined && value !== null && String(value).length > 0
}

// The first rule that holds wins; listening beats any tool status.
function mood(store, recognizer, synthesizer) {
    if (recognizer && recognizer.isListening)
        return "listening"
    if (store && hasText(store.toolStatus))
        return String(store.toolStatus).toLowerCase().indexOf("caut") !== -1 ? "searching" : "thinking"
    if (store && store.isThinking)
        return "thinking"
    if (synthesizer && (synthesizer.isSpeaking || synthesizer.isPreparingVoice))
        return "speaking"
    return "idle"
}

function stateIcon(store, recognizer, synthesizer) {
    switch (mood(store, recognizer, synthesizer)) {
    case "listening": return "waveform"
    case "searching": return "globe.americas.fill"
    case "thinking": return "sparkles"
    case "speaking": return "speaker.wave.2.fill"
    default: return "mic.fill"
    }
}

// The glyph drawn inside the orb.
function orbGlyph(moodName) {
    switch (moodName) {
    case "listening": return "waveform"
    case "thinking": return "sparkles"
    case "searching": return "magnifyingglass"
    case "speaking": return "speaker.wave.2.fill"
    default: return "mic.fill"
    }
}

// Texts the app writes itself (the welcome, the new-conversation notice) never fill the answer card.
var systemMadeMarkers = ["ține apăsat companionul", "memoria utilă rămâne"]

function latestAssistantText(messages) {
    if (!messages)
        return null
    var last = null
    for (var i = 0; i < messages.length; ++i) {
        if (messages[i] && messages[i].role === "assistant")
            last = messages[i]
    }
    if (last === null)
        return null
    var text = String(last.text)
    var lowered = text.toLowerCase()
    for (var m = 0; m < systemMadeMarkers.length; ++m) {
        if (lowered.indexOf(systemMadeMarkers[m]) !== -1)
            return null
    }
    return text
}

function hintText(hasZenKey) {
    return hasZenKey
        ? "Ține apăsat companionul și vorbește. Kelo păstrează contextul și alege automat skillurile necesare."
        : "Adaugă cheia OpenCode Zen în Setări. Big Pickle este selectat implicit."
}

function modelLabel(store) {
    if (store && store.hasZenKey && store.selectedZenModel && hasText(store.selectedZenModel.name))
        return store.selectedZenModel.name
    return "Configurează Zen"
}

function modelOptionLabel(model) {
    return model.isFree ? model.name + "  ·  FREE" : model.name
}

function canSend(draft, isThinking) {
    return !isThinking && String(draft || "").trim().length > 0
}

// --- orb drawing ---

var palettes = {
    "idle": ["#7CF5D0", "#46D4F0", "#5C63E6"],
    "listening": ["#8CFFDA", "#3FE0FF", "#6A64FF"],
    "thinking": ["#6A6CF0", "#A565F2", "#F06BC0"],
    "searching": ["#46D4F0", "#7CF5D0", "#3D7BFF"],
    "speaking": ["#FF6FAE", "#FFA24C", "#A362F5"]
}

var ringSpeeds = { "idle": 0.34, "listening": 0.82, "thinking": 0.92, "searching": 1.18, "speaking": 1.02 }

function orbPalette(moodName) {
    return palettes[moodName] || palettes.idle
}

function ringSpeed(moodName) {
    return ringSpeeds[moodName] !== undefined ? ringSpeeds[moodName] : ringSpeeds.idle
}

function haloScale(t) {
    return 1.2 + 0.035 * Math.sin(0.7 * t)
}

// Degrees, unbounded; the caller's rotation wraps naturally.
function ringAngle(t, moodName) {
    return t * ringSpeed(moodName) * 18
}

// Seconds between drawn frames. At rest the orb moves a few degrees a second, so ten frames
// suffice and the companion stays cheap while it waits; the active moods get a fluid 30.
function frameInterval(moodName) {
    return moodName === "idle" ? 1 / 10 : 1 / 30
}

// How far the microphone level swells the core; only while listening, clamped to [0, 1].
function coreScale(moodName, audioLevel) {
    if (moodName !== "listening")
        return 1
    var level = Math.max(0, Math.min(1, Number(audioLevel) || 0))
    return 1 + 0.14 * level
}

// --- settings ---

var engineCards = [
    { engine: "Apple Local", title: "Voce locală", key: "appleLocal", symbol: "iphone", badge: "GRATUIT · OFFLINE",
      description: "Offline · fără API · calitatea depinde de vocile instalate pe calculator" },
    { engine: "Google Cloud TTS", title: "Google Cloud TTS", key: "googleCloud", symbol: "cloud", badge: "FREE TIER · API",
      description: "API · Romanian WaveNet / Chirp · are free tier pentru unele voci" },
    { engine: "Azure Speech", title: "Azure Speech", key: "azureSpeech", symbol: "waveform.path.ecg", badge: "F0 / FREE TIER · API",
      description: "API · Romanian Neural · disponibil și cu resursă Azure F0" },
    { engine: "ElevenLabs", title: "ElevenLabs", key: "elevenLabs", symbol: "sparkles", badge: "CALITATE RIDICATĂ · API",
      description: "API · foarte natural · cost/credit în funcție de cont" }
]

function engineCard(engineRawValue) {
    for (var i = 0; i < engineCards.length; ++i) {
        if (engineCards[i].engine === engineRawValue)
            return engineCards[i]
    }
    return engineCards[0]
}

var qualityTitles = { "default": "Standard", "standard": "Standard", "enhanced": "Îmbunătățită",
                      "premium": "Premium" }

function voiceQualityTitle(quality) {
    var key = String(quality || "").toLowerCase()
    if (qualityTitles[key] !== undefined)
        return qualityTitles[key]
    return hasText(quality) ? String(quality) : "Standard"
}

// The local voice picker: the automatic entry (empty identifier) first, then the Romanian voices.
function localVoiceOptions(voices) {
    var options = [{ identifier: "", label: "Automat · cea mai bună" }]
    if (!voices)
        return options
    for (var i = 0; i < voices.length; ++i) {
        var v = voices[i]
        var identifier = hasText(v.identifier) ? v.identifier : v.id
        options.push({ identifier: String(identifier), label: v.name + " · " + voiceQualityTitle(v.quality) })
    }
    return options
}

function cloudVoiceLabel(voice) {
    var parts = [voice.name]
    if (hasText(voice.gender))
        parts.push(voice.gender)
    if (hasText(voice.detail))
        parts.push(voice.detail)
    return parts.join(" · ")
}

function indexOfValue(options, field, value) {
    if (!options)
        return -1
    for (var i = 0; i < options.length; ++i) {
        if (options[i][field] === value)
            return i
    }
    return -1
}

function memoryText(summary) {
    var text = String(summary || "").trim()
    return text.length > 0 ? text : "Memoria se construiește automat pe măsură ce conversația progresează."
}

// --- skills ---

function isGalleryItemConnected(servers, itemId) {
    if (!servers)
        return false
    for (var i = 0; i < servers.length; ++i) {
        if (servers[i] && servers[i].sourceID === itemId)
            return true
    }
    return false
}

function serverStateText(enabled) {
    return enabled ? "Activ" : "Oprit"
}

function serverToggleLabel(enabled) {
    return enabled ? "Oprește" : "Activează"
}

function tintColor(tintName) {
    var tints = { "violet": "#9B7BFF", "blue": "#4C8DFF", "pink": "#FF6FAE", "green": "#4ED38A",
                  "red": "#FF6B6B", "cyan": "#46D4F0", "mint": "#7CF5D0", "orange": "#FFA24C",
                  "indigo": "#6A6CF0", "purple": "#A565F2" }
    return tints[tintName] || "#9AA3C0"
}

// A manual endpoint must be an absolute http(s) URL with a host.
function isValidEndpoint(text) {
    return /^https?:\/\/[^\s\/?#]+[^\s]*$/i.test(String(text || "").trim())
}
