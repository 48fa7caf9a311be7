pragma Singleton
import QtQuick

// Colours and sizes of the dark interface, in one place.
QtObject {
    readonly property color background: "#070A14"
    readonly property color backgroundTop: "#0E1428"
    readonly property color card: Qt.rgba(1, 1, 1, 0.055)
    readonly property color cardStrong: Qt.rgba(1, 1, 1, 0.09)
    readonly property color cardBorder: Qt.rgba(1, 1, 1, 0.10)
    readonly property color text: "#F3F5FF"
    readonly property color secondaryText: "#A3ABC8"
    readonly property color tertiaryText: "#6F7899"
    readonly property color accent: "#7CF5D0"
    readonly property color accentStrong: "#3FD9B0"
    readonly property color cyan: "#46D4F0"
    readonly property color indigo: "#6A6CF0"
    readonly property color danger: "#FF6B7A"
    readonly property color warning: "#FFB454"
    readonly property color userBubble: "#2B4E8F"
    readonly property int radius: 18
    readonly property int smallRadius: 12
    readonly property int contentMaxWidth: 680
}
