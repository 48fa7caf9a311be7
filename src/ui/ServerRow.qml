import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "ViewLogic.js" as Logic

// One configured MCP server with its switch, check and delete actions.
RowLayout {
    id: row
    property var server
    property bool checking: false
    signal toggleRequested()
    signal checkRequested()
    signal deleteRequested()

    Layout.fillWidth: true
    spacing: 8
    Rectangle {
        Layout.preferredWidth: 10
        Layout.preferredHeight: 10
        radius: 5
        color: row.server.enabled ? Theme.accent : Theme.tertiaryText
    }
    ColumnLayout {
        Layout.fillWidth: true
        spacing: 1
        Label {
            text: row.server.name
            color: Theme.text
            font.pixelSize: 15
            font.bold: true
            elide: Text.ElideRight
            Layout.fillWidth: true
        }
        Label {
            objectName: "serverDetail"
            text: [row.server.authLabel, Logic.serverStateText(row.server.enabled),
                   row.server.needsReconnect ? "Trebuie conectat din nou" : ""]
                    .filter(function (part) { return part && part.length > 0 }).join(" · ")
            color: row.server.needsReconnect ? Theme.danger : Theme.secondaryText
            font.pixelSize: 12
        }
    }
    Button {
        objectName: "toggleButton"
        text: Logic.serverToggleLabel(row.server.enabled)
        flat: true
        font.capitalization: Font.MixedCase
        focusPolicy: Qt.NoFocus
        onClicked: row.toggleRequested()
    }
    IconButton {
        objectName: "checkButton"
        symbol: "bolt.horizontal.circle"
        tip: "Verifică instrumentele"
        tint: Theme.cyan
        enabled: !row.checking
        onClicked: row.checkRequested()
        BusyIndicator { anchors.fill: parent; running: row.checking; visible: running }
    }
    IconButton {
        objectName: "deleteButton"
        symbol: "trash"
        tip: "Șterge"
        tint: Theme.danger
        onClicked: row.deleteRequested()
    }
}
