import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// One selectable voice engine: symbol, title, badge and description.
Rectangle {
    id: card
    property var engine
    property bool selected: false
    signal chosen()

    implicitHeight: column.implicitHeight + 24
    radius: Theme.smallRadius
    color: selected ? Qt.rgba(0.49, 0.96, 0.82, 0.12) : (mouse.containsMouse ? Theme.cardStrong : Qt.rgba(1, 1, 1, 0.035))
    border.color: selected ? Theme.accent : Theme.cardBorder
    border.width: selected ? 2 : 1

    ColumnLayout {
        id: column
        anchors.fill: parent
        anchors.margins: 12
        spacing: 4
        RowLayout {
            spacing: 8
            SymbolIcon { symbol: card.engine.symbol; size: 18; color: card.selected ? Theme.accent : Theme.text }
            Label {
                text: card.engine.title
                font.pixelSize: 15
                font.bold: true
                color: Theme.text
                Layout.fillWidth: true
                elide: Text.ElideRight
            }
        }
        Label {
            text: card.engine.badge
            font.pixelSize: 11
            font.bold: true
            color: card.selected ? Theme.accent : Theme.cyan
        }
        Label {
            text: card.engine.description
            font.pixelSize: 12
            color: Theme.secondaryText
            wrapMode: Text.Wrap
            Layout.fillWidth: true
        }
    }
    MouseArea {
        id: mouse
        anchors.fill: parent
        hoverEnabled: true
        cursorShape: Qt.PointingHandCursor
        onClicked: card.chosen()
    }
}
