import QtQuick
import QtTest
import "qrc:/qt/qml/Kelo/ViewLogic.js" as Logic

TestCase {
    name: "ViewLogic"

    function state(over) {
        var s = { store: { toolStatus: "", isThinking: false },
                  speech: { isListening: false, isSpeaking: false, isPreparingVoice: false } }
        for (var k in over.store || {}) s.store[k] = over.store[k]
        for (var j in over.speech || {}) s.speech[j] = over.speech[j]
        return s
    }

    function test_moodAndIconFollowTheFirstRuleThatHolds_data() {
        return [
            { tag: "at rest", over: {}, mood: "idle", icon: "mic.fill" },
            { tag: "listening wins over a search status",
              over: { speech: { isListening: true, isSpeaking: true }, store: { toolStatus: "Caut pe internet…", isThinking: true } },
              mood: "listening", icon: "waveform" },
            { tag: "search status", over: { store: { toolStatus: "Caut pe internet…" } }, mood: "searching", icon: "globe.americas.fill" },
            { tag: "search status in capitals", over: { store: { toolStatus: "CAUT ÎN WIKIPEDIA" } }, mood: "searching", icon: "globe.americas.fill" },
            { tag: "syncing skills is thinking", over: { store: { toolStatus: "Sincronizez skillurile…" } }, mood: "thinking", icon: "sparkles" },
            { tag: "reading a page is thinking", over: { store: { toolStatus: "Citesc pagina…" } }, mood: "thinking", icon: "sparkles" },
            { tag: "tool status beats speaking", over: { store: { toolStatus: "Folosesc GitHub…" }, speech: { isSpeaking: true } }, mood: "thinking", icon: "sparkles" },
            { tag: "thinking beats speaking", over: { store: { isThinking: true }, speech: { isSpeaking: true } }, mood: "thinking", icon: "sparkles" },
            { tag: "speaking", over: { speech: { isSpeaking: true } }, mood: "speaking", icon: "speaker.wave.2.fill" },
            { tag: "preparing the voice", over: { speech: { isPreparingVoice: true } }, mood: "speaking", icon: "speaker.wave.2.fill" }
        ]
    }

    function test_moodAndIconFollowTheFirstRuleThatHolds(data) {
        var s = state(data.over)
        compare(Logic.mood(s.store, s.speech), data.mood)
        compare(Logic.stateIcon(s.store, s.speech), data.icon)
    }

    function test_latestAssistantText_data() {
        function m(role, text) { return { role: role, text: text } }
        return [
            { tag: "no messages", messages: [], expected: null },
            { tag: "only the user spoke", messages: [m("user", "Salut")], expected: null },
            { tag: "only the welcome", messages: [m("assistant", "Salut. Sunt Kelo. Ține apăsat companionul și vorbește.")], expected: null },
            { tag: "welcome in other case", messages: [m("assistant", "ȚINE APĂSAT COMPANIONUL")], expected: null },
            { tag: "new conversation notice",
              messages: [m("assistant", "O veche replică"), m("assistant", "Conversație nouă. Memoria utilă rămâne disponibilă.")],
              expected: null },
            { tag: "last assistant message, untouched",
              messages: [m("assistant", "Prima"), m("user", "Și?"), m("assistant", "Bucureștiul are 1,7 MILIOANE de locuitori."), m("user", "Mersi")],
              expected: "Bucureștiul are 1,7 MILIOANE de locuitori." },
            { tag: "an answer after the welcome",
              messages: [m("assistant", "Salut. Sunt Kelo. Ține apăsat companionul și vorbește."), m("user", "Ce faci?"), m("assistant", "Bine!")],
              expected: "Bine!" }
        ]
    }

    function test_latestAssistantText(data) {
        compare(Logic.latestAssistantText(data.messages), data.expected)
    }

    function test_hintAndModelLabelDependOnTheKey() {
        verify(Logic.hintText(true).indexOf("Ține apăsat companionul și vorbește.") === 0)
        compare(Logic.hintText(false), "Adaugă cheia OpenCode Zen în Setări. Big Pickle este selectat implicit.")
        var model = { id: "gpt", name: "GPT 5", isFree: false }
        compare(Logic.modelLabel({ hasZenKey: true, selectedZenModel: model }), "GPT 5")
        compare(Logic.modelLabel({ hasZenKey: false, selectedZenModel: model }), "Configurează Zen")
        compare(Logic.modelOptionLabel({ name: "Big Pickle", isFree: true }), "Big Pickle  ·  FREE")
        compare(Logic.modelOptionLabel(model), "GPT 5")
    }

    function test_sendingNeedsTextAndNoTurnInFlight() {
        verify(!Logic.canSend("   \n", false))
        verify(!Logic.canSend("salut", true))
        verify(!Logic.canSend(undefined, false))
        verify(Logic.canSend(" salut ", false))
    }

    function test_orbMotion() {
        compare(Logic.haloScale(0), 1.2)
        fuzzyCompare(Logic.haloScale(Math.PI / 1.4), 1.235, 1e-9)
        fuzzyCompare(Logic.haloScale(3 * Math.PI / 1.4), 1.165, 1e-9)
        var speeds = { idle: 0.34, listening: 0.82, thinking: 0.92, searching: 1.18, speaking: 1.02 }
        for (var mood in speeds)
            fuzzyCompare(Logic.ringAngle(10, mood), 10 * speeds[mood] * 18, 1e-9)
        // An unknown mood turns like idle rather than freezing.
        fuzzyCompare(Logic.ringAngle(10, "bogus"), 61.2, 1e-9)
        compare(Logic.coreScale("idle", 1), 1)
        compare(Logic.coreScale("listening", 0), 1)
        fuzzyCompare(Logic.coreScale("listening", 7), 1.14, 1e-9)
        // Rest is drawn sparingly; every active mood is fluid.
        verify(Logic.frameInterval("idle") >= 1 / 15)
        for (var i = 1; i < Logic.moods.length; ++i)
            verify(Logic.frameInterval(Logic.moods[i]) <= 1 / 30 + 1e-9, Logic.moods[i])
    }

    function test_palettesFollowTheMoodFamilies() {
        compare(Logic.orbPalette("idle"), Logic.orbPalette("bogus"))
        for (var i = 0; i < Logic.moods.length; ++i)
            compare(Logic.orbPalette(Logic.moods[i]).length, 3)
        verify(Logic.orbPalette("speaking")[0] !== Logic.orbPalette("thinking")[0])
    }

    function test_engineCards() {
        var titles = Logic.engineCards.map(function (c) { return c.engine })
        compare(titles, ["Apple Local", "Google Cloud TTS", "Azure Speech", "ElevenLabs"])
        var azure = Logic.engineCard("Azure Speech")
        compare(azure.symbol, "waveform.path.ecg")
        compare(azure.badge, "F0 / FREE TIER · API")
        compare(azure.description, "API · Romanian Neural · disponibil și cu resursă Azure F0")
        compare(Logic.engineCard("ElevenLabs").badge, "CALITATE RIDICATĂ · API")
        compare(Logic.engineCard("Apple Local").badge, "GRATUIT · OFFLINE")
        compare(Logic.engineCard("Google Cloud TTS").description, "API · Romanian WaveNet / Chirp · are free tier pentru unele voci")
        // A raw value from a later version falls back to the first card instead of breaking the view.
        compare(Logic.engineCard("Something New").engine, "Apple Local")
    }

    function test_localVoiceOptionsStartWithTheAutomaticChoice() {
        var options = Logic.localVoiceOptions([{ identifier: "ro+adam", name: "Romanian+Adam", quality: "enhanced" },
                                               { id: "ro", name: "Romanian", quality: "premium" },
                                               { identifier: "ro+x", name: "Romanian+X" }])
        compare(options[0].identifier, "")
        compare(options[0].label, "Automat · cea mai bună")
        compare(options[1].label, "Romanian+Adam · Îmbunătățită")
        compare(options[2].identifier, "ro")
        compare(options[2].label, "Romanian · Premium")
        compare(options[3].label, "Romanian+X · Standard")
        compare(Logic.localVoiceOptions(undefined).length, 1)
    }

    function test_galleryConnectionFollowsTheServersSource() {
        var servers = [{ id: "1", sourceID: "" }, { id: "2", sourceID: "github" }]
        verify(Logic.isGalleryItemConnected(servers, "github"))
        verify(!Logic.isGalleryItemConnected(servers, "linear"))
        verify(!Logic.isGalleryItemConnected([], "github"))
        verify(!Logic.isGalleryItemConnected(null, "github"))
        compare(Logic.serverStateText(true), "Activ")
        compare(Logic.serverStateText(false), "Oprit")
        compare(Logic.serverToggleLabel(true), "Oprește")
        compare(Logic.serverToggleLabel(false), "Activează")
    }

    function test_manualEndpointValidation_data() {
        return [
            { tag: "https", text: "https://mcp.example.com/mcp", ok: true },
            { tag: "http with port", text: " http://127.0.0.1:8080 ", ok: true },
            { tag: "no scheme", text: "mcp.example.com", ok: false },
            { tag: "scheme only", text: "https://", ok: false },
            { tag: "other scheme", text: "ftp://x.y", ok: false },
            { tag: "spaces inside", text: "https://a b.com", ok: false },
            { tag: "empty", text: "", ok: false }
        ]
    }

    function test_manualEndpointValidation(data) {
        compare(Logic.isValidEndpoint(data.text), data.ok)
    }

    function test_memoryTextFallsBackWhenEmpty() {
        compare(Logic.memoryText("  \n"), "Memoria se construiește automat pe măsură ce conversația progresează.")
        compare(Logic.memoryText(" Îi place jazzul. "), "Îi place jazzul.")
    }
}
