import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Kelo.Core

// One gallery service; shows "CONECTAT" once a configured server came from it.
ItemDelegate {
    id: row
    property var item
    property bool connected: false

    Layout.fillWidth: true
    focusPolicy: Qt.NoFocus
    padding: 8
    background: Rectangle {
        radius: Theme.smallRadius
        color: row.down ? Theme.cardStrong : (row.hovered ? Theme.card : "transparent")
    }
    contentItem: RowLayout {
        spacing: 12
        Rectangle {
            Layout.preferredWidth: 38
            Layout.preferredHeight: 38
            radius: 10
            readonly property color tint: ViewPresets.tintColor(row.item.tintName)
            color: Qt.rgba(tint.r, tint.g, tint.b, 0.18)
            SymbolIcon { anchors.centerIn: parent; symbol: row.item.symbol; size: 18; color: parent.tint }
        }
        ColumnLayout {
            Layout.fillWidth: true
            spacing: 1
            Label { text: row.item.name; color: Theme.text; font.pixelSize: 15; font.bold: true }
            Label {
                text: row.item.subtitle
                color: Theme.secondaryText
                font.pixelSize: 12
                elide: Text.ElideRight
                Layout.fillWidth: true
            }
        }
        Label {
            objectName: "connectedBadge"
            visible: row.connected
            text: "CONECTAT"
            color: Theme.accent
            font.pixelSize: 11
            font.bold: true
        }
        SymbolIcon {
            symbol: row.connected ? "checkmark.circle.fill" : "chevron.right"
            size: 18
            color: row.connected ? Theme.accent : Theme.tertiaryText
        }
    }
}
