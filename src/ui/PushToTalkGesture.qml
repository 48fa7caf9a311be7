import QtQuick

// Hold-to-talk shared by the mouse on the orb and the Space key: the flag lets only the first
// press begin and only the matching release end, whatever happens in between.
QtObject {
    property var store
    property bool orbPressed: false

    function begin() {
        if (orbPressed)
            return
        orbPressed = true
        store.startPushToTalk()
    }

    function end() {
        if (!orbPressed)
            return
        orbPressed = false
        store.stopPushToTalk()
    }
}
