import QtQuick
import QtTest
import "qrc:/qt/qml/Kelo/ViewLogic.js" as Logic

TestCase {
    name: "ViewLogic"

    // The answer card reads a list model through count and get(row); a plain array stands in for it.
    function listOf(messages) {
        return { count: messages.length, get: function (row) { return messages[row] } }
    }

    function test_latestAnswerText_data() {
        function m(role, text, fromApp) { return { role: role, text: text, fromApp: !!fromApp } }
        return [
            { tag: "no model", list: null, expected: null },
            { tag: "no messages", list: [], expected: null },
            { tag: "only the user spoke", list: [m("user", "Salut")], expected: null },
            { tag: "the app's own notice hides an older answer",
              list: [m("assistant", "O veche replică"), m("assistant", "Conversație nouă.", true)], expected: null },
            { tag: "last assistant message, untouched, even when it quotes the welcome",
              list: [m("assistant", "Salut.", true), m("user", "Și?"),
                     m("assistant", "Ține apăsat companionul: 1,7 MILIOANE."), m("user", "Mersi")],
              expected: "Ține apăsat companionul: 1,7 MILIOANE." }
        ]
    }

    function test_latestAnswerText(data) {
        compare(Logic.latestAnswerText(data.list === null ? null : listOf(data.list)), data.expected)
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
