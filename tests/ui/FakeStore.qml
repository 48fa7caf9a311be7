import QtQuick
import Kelo.Core
import Kelo.Testing

// Stands in for ChatStore: state the tests set directly, and the entry points recorded in `calls`.
QtObject {
    id: store
    // Same roles as the store's ChatMessageModel: role, text, fromApp, date.
    property ListModel conversation: ListModel {}
    property string draft: ""
    property bool isThinking: false
    property int activity: ChatStore.Idle
    property var zenModels: []
    property string zenError: ""
    property bool hasZenKey: true
    property var selectedZenModel: ({ id: "big-pickle", name: "Big Pickle", isFree: true })
    property string activityText: "Ține apăsat pentru a vorbi"
    // The views only read settings and speech state here, so those are the real ones.
    readonly property QtObject settings: Real.store.settings
    readonly property QtObject recognizer: Real.store.recognizer
    readonly property QtObject synthesizer: Real.store.synthesizer
    property QtObject memory: QtObject { property string summary: "" }
    property var calls: []

    function record(name) { calls = calls.concat([name]) }
    function startPushToTalk() { record("begin") }
    function stopPushToTalk() { record("end") }
    function sendDraft() { record("send:" + draft) }
    function reloadZenModels() { record("reloadZenModels") }
    function reloadMCPBindings() { record("reloadMCPBindings") }

    function message(role, text, fromApp) {
        return { role: role, text: text, fromApp: !!fromApp, date: new Date() }
    }
    function setMessages(messages) {
        conversation.clear()
        for (var i = 0; i < messages.length; ++i)
            conversation.append(messages[i])
    }
}
