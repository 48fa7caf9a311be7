.pragma library

// Pure rules of the companion's views: what the orb shows, which texts appear, how the gallery
// reads. Kept free of QML items so that tests can call them with plain objects.

var moods = ["idle", "listening", "thinking", "searching", "speaking"]

function hasText(value) {
    return value !== undefined && value !== null && String(value).length > 0
}

function stateIcon(moodName) {
    switch (moodName) {
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

// The text of the last assistant message of a conversation list model (anything with count and
// get(row)), or null when there is none or the app wrote it itself (the welcome, a notice).
function latestAnswerText(conversation) {
    if (!conversation)
        return null
    for (var row = conversation.count - 1; row >= 0; --row) {
        var message = conversation.get(row)
        if (message && message.role === "assistant")
            return message.fromApp ? null : String(message.text)
    }
    return null
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
