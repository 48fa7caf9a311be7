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

    // Missing, blank or unknown values from the store fall back instead of breaking a view.
    function test_oddInputsFallBack() {
        verify(!Logic.canSend(undefined, false))
        verify(!Logic.canSend("   \n", false))
        verify(!Logic.isGalleryItemConnected(null, "github"))
        compare(Logic.orbPalette("bogus"), Logic.orbPalette("idle"))
        fuzzyCompare(Logic.ringAngle(10, "bogus"), Logic.ringAngle(10, "idle"), 1e-9)
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
}
