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
            { tag: "search status in capitals", over: { store: { toolStatus: "CAUT ÎN WIKIPEDIA" } }, mood: "searching", icon: "globe.americas.fill" },
            { tag: "reading a page is thinking", over: { store: { toolStatus: "Citesc pagina…" } }, mood: "thinking", icon: "sparkles" },
            { tag: "tool status beats speaking", over: { store: { toolStatus: "Folosesc GitHub…" }, speech: { isSpeaking: true } }, mood: "thinking", icon: "sparkles" },
            { tag: "thinking beats speaking", over: { store: { isThinking: true }, speech: { isSpeaking: true } }, mood: "thinking", icon: "sparkles" },
            { tag: "speaking", over: { speech: { isSpeaking: true } }, mood: "speaking", icon: "speaker.wave.2.fill" },
            { tag: "preparing the voice", over: { speech: { isPreparingVoice: true } }, mood: "speaking", icon: "speaker.wave.2.fill" }
        ]
    }

    function test_moodAndIconFollowTheFirstRuleThatHolds(data) {
        var s = state(data.over)
        compare(Logic.mood(s.store, s.speech, s.speech), data.mood)
        compare(Logic.stateIcon(s.store, s.speech, s.speech), data.icon)
    }

    function test_latestAssistantText_data() {
        function m(role, text) { return { role: role, text: text } }
        var welcome = m("assistant", "Salut. Sunt Kelo. Ține apăsat companionul și vorbește.")
        return [
            { tag: "no messages", messages: [], expected: null },
            { tag: "only the user spoke", messages: [m("user", "Salut")], expected: null },
            { tag: "welcome in other case", messages: [m("assistant", "ȚINE APĂSAT COMPANIONUL")], expected: null },
            { tag: "new conversation notice",
              messages: [m("assistant", "O veche replică"), m("assistant", "Conversație nouă. Memoria utilă rămâne disponibilă.")],
              expected: null },
            { tag: "last assistant message, untouched",
              messages: [welcome, m("user", "Și?"), m("assistant", "Bucureștiul are 1,7 MILIOANE de locuitori."), m("user", "Mersi")],
              expected: "Bucureștiul are 1,7 MILIOANE de locuitori." }
        ]
    }

    function test_latestAssistantText(data) {
        compare(Logic.latestAssistantText(data.messages), data.expected)
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

    // Missing, blank or unknown values from the store fall back instead of breaking a view.
    function test_oddInputsFallBack() {
        verify(!Logic.canSend(undefined, false))
        verify(!Logic.canSend("   \n", false))
        verify(!Logic.isGalleryItemConnected(null, "github"))
        compare(Logic.memoryText("  \n"), "Memoria se construiește automat pe măsură ce conversația progresează.")
        compare(Logic.memoryText(" Îi place jazzul. "), "Îi place jazzul.")
        compare(Logic.engineCard("Something New").engine, "Apple Local")
        compare(Logic.orbPalette("bogus"), Logic.orbPalette("idle"))
        fuzzyCompare(Logic.ringAngle(10, "bogus"), Logic.ringAngle(10, "idle"), 1e-9)
        compare(Logic.localVoiceOptions(undefined).length, 1)
        compare(Logic.modelOptionLabel({ name: "Big Pickle", isFree: true }), "Big Pickle  ·  FREE")
        compare(Logic.modelOptionLabel({ name: "GPT 5", isFree: false }), "GPT 5")
    }

    function test_orbMotion() {
        compare(Logic.coreScale("listening", 0), 1)
        verify(Logic.coreScale("listening", 7) > 1)
        compare(Logic.coreScale("idle", 1), 1, "only listening follows the voice")
        // Rest is drawn sparingly; every active mood is fluid.
        verify(Logic.frameInterval("idle") >= 1 / 15)
        for (var i = 1; i < Logic.moods.length; ++i)
            verify(Logic.frameInterval(Logic.moods[i]) <= 1 / 30 + 1e-9, Logic.moods[i])
    }

    function test_localVoiceOptionsStartWithTheAutomaticChoice() {
        var options = Logic.localVoiceOptions([{ identifier: "ro+adam", name: "Romanian+Adam", quality: "enhanced" },
                                               { id: "ro", name: "Romanian", quality: "premium" },
                                               { identifier: "ro+x", name: "Romanian+X" }])
        compare(options.map(function (o) { return o.identifier }), ["", "ro+adam", "ro", "ro+x"])
        compare(options.map(function (o) { return o.label }),
                ["Automat · cea mai bună", "Romanian+Adam · Îmbunătățită", "Romanian · Premium", "Romanian+X · Standard"])
    }
}
