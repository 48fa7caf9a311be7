import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// One group of a form: a small capitalised heading, the rows in a card, an optional footer note.
ColumnLayout {
    id: section
    property string title
    property string footer
    default property alias rows: body.data

    Layout.fillWidth: true
    spacing: 6

    Label {
        visible: section.title.length > 0
        text: section.title.toUpperCase()
        font.pixelSize: 12
        font.letterSpacing: 1.2
        font.bold: true
        color: Theme.secondaryText
        Layout.leftMargin: 6
    }
    Card {
        Layout.fillWidth: true
        Layout.preferredHeight: body.implicitHeight + 28
        ColumnLayout {
            id: body
            anchors.fill: parent
            anchors.margins: 14
            spacing: 10
        }
    }
    Label {
        visible: section.footer.length > 0
        text: section.footer
        wrapMode: Text.Wrap
        font.pixelSize: 12
        color: Theme.tertiaryText
        Layout.fillWidth: true
        Layout.leftMargin: 6
        Layout.rightMargin: 6
    }
}
