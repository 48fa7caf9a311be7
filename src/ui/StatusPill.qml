import QtQuick
import QtQuick.Controls

// The one-line state under the orb.
Rectangle {
    id: pill
    property string symbol: "mic.fill"
    property string text

    implicitWidth: row.implicitWidth + 28
    implicitHeight: 36
    radius: height / 2
    color: Qt.rgba(1, 1, 1, 0.07)
    border.color: Theme.cardBorder

    Row {
        id: row
        anchors.centerIn: parent
        spacing: 8
        SymbolIcon { symbol: pill.symbol; size: 16; color: Theme.accent; anchors.verticalCenter: parent.verticalCenter }
        Label {
            objectName: "statusText"
            text: pill.text
            color: Theme.text
            font.pixelSize: 14
            anchors.verticalCenter: parent.verticalCenter
        }
    }
}
