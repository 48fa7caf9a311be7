import QtQuick
import QtTest
import "qrc:/qt/qml/Kelo/ViewLogic.js" as Logic

TestCase {
    name: "ViewLogic"

    // Missing, blank or unknown values from the store fall back instead of breaking a view.
    function test_oddInputsFallBack() {
        compare(Logic.latestAnswerText(null), null)
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
