.pragma library

// The phone's symbol names mapped to the nearest freedesktop icons (Adwaita's symbolic set).
var names = {
    "sparkles": "starred-symbolic",
    "point.3.connected.trianglepath.dotted": "network-workgroup-symbolic",
    "slider.horizontal.3": "preferences-system-symbolic",
    "waveform": "microphone-sensitivity-high-symbolic",
    "globe.americas": "web-browser-symbolic",
    "globe.americas.fill": "web-browser-symbolic",
    "speaker.wave.2.fill": "audio-volume-high-symbolic",
    "mic.fill": "audio-input-microphone-symbolic",
    "bubble.left.and.bubble.right": "chat-message-new-symbolic",
    "plus": "list-add-symbolic",
    "hand.tap": "input-touchpad-symbolic",
    "arrow.up": "go-up-symbolic",
    "bolt.horizontal.circle": "thunderbolt-symbolic",
    "arrow.clockwise": "view-refresh-symbolic",
    "iphone": "computer-symbolic",
    "cloud": "weather-overcast-symbolic",
    "waveform.path.ecg": "microphone-sensitivity-medium-symbolic",
    "exclamationmark.circle": "dialog-error-symbolic",
    "exclamationmark.triangle.fill": "dialog-warning-symbolic",
    "arrow.down.circle": "folder-download-symbolic",
    "xmark.circle": "process-stop-symbolic",
    "waveform.badge.plus": "list-add-symbolic",
    "trash": "user-trash-symbolic",
    "wand.and.stars": "system-run-symbolic",
    "checkmark.circle": "emblem-ok-symbolic",
    "checkmark.circle.fill": "emblem-ok-symbolic",
    "chevron.right": "go-next-symbolic",
    "chevron.left.forwardslash.chevron.right": "utilities-terminal-symbolic",
    "number": "input-dialpad-symbolic",
    "folder": "folder-symbolic",
    "envelope": "mail-unread-symbolic",
    "calendar": "x-office-calendar-symbolic",
    "person.badge.key.fill": "dialog-password-symbolic",
    "plus.circle": "list-add-symbolic",
    "lock": "channel-secure-symbolic",
    "play": "media-playback-start-symbolic",
    "stop": "media-playback-stop-symbolic",
    "memory": "document-open-recent-symbolic",
    "magnifyingglass": "system-search-symbolic"
}

function iconName(symbol) {
    return names[symbol] || "image-missing-symbolic"
}
