import QtQuick

// Stands in for CompanionActions in the chat view's tests: records every call with its arguments.
QtObject {
    property var calls: []
    function clearConversation() { calls = calls.concat([["clearConversation"]]) }
}
