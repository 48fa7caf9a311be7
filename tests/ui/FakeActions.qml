import QtQuick

// Stands in for CompanionActions in the chat view's tests: records every call with its arguments.
QtObject {
    property var calls: []

    function record(entry) {
        var copy = calls.slice()
        copy.push(entry)
        calls = copy
    }

    function clearConversation() { record(["clearConversation"]) }
}
