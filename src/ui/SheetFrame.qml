import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// A modal sheet with a title bar and a close button; the body scrolls.
Popup {
    id: sheet
    property string title
    property string closeText: "Închide"
    default property alias body: column.data

    modal: true
    focus: true
    anchors.centerIn: Overlay.overlay
    width: Math.min(parent ? parent.width - 32 : 560, 560)
    height: Math.min(parent ? parent.height - 48 : 640, header.implicitHeight + column.implicitHeight + 48)
    padding: 0
    Overlay.modal: Rectangle { color: Qt.rgba(0.01, 0.02, 0.05, 0.72) }
    background: Rectangle {
        radius: 22
        color: "#10152A"
        border.color: Theme.cardBorder
    }

    contentItem: ColumnLayout {
        spacing: 0
        RowLayout {
            id: header
            Layout.fillWidth: true
            Layout.margins: 16
            Label {
                text: sheet.title
                font.pixelSize: 20
                font.bold: true
                color: Theme.text
                elide: Text.ElideRight
                Layout.fillWidth: true
            }
            Button {
                text: sheet.closeText
                flat: true
                font.capitalization: Font.MixedCase
                focusPolicy: Qt.NoFocus
                onClicked: sheet.close()
            }
        }
        Rectangle { Layout.fillWidth: true; height: 1; color: Theme.cardBorder }
        ScrollView {
            id: scroll
            Layout.fillWidth: true
            Layout.fillHeight: true
            contentWidth: availableWidth
            clip: true
            ColumnLayout {
                id: column
                x: 16
                width: scroll.availableWidth - 32
                spacing: 16
                Item { Layout.preferredHeight: 2 }
            }
        }
    }
}
