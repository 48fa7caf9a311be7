import QtQuick
import QtQuick.Controls
import QtQuick.Controls.Material
import QtQuick.Layouts
import "Symbols.js" as Symbols

// The three tabs. The chat tab is selected on every start; the selection is not kept.
Item {
    id: root

    required property var store
    property var actions

    Material.theme: Material.Dark
    Material.accent: Theme.accent
    property bool animating: true
    property alias selection: tabs.currentIndex
    readonly property alias chatView: chat

    ColumnLayout {
        anchors.fill: parent
        spacing: 0

        StackLayout {
            id: stack
            objectName: "tabStack"
            Layout.fillWidth: true
            Layout.fillHeight: true
            currentIndex: tabs.currentIndex

            ChatView {
                id: chat
                store: root.store
                actions: root.actions
                animating: root.animating && stack.currentIndex === 0
                focus: stack.currentIndex === 0
            }
            SkillsView {
                id: skills
                store: root.store
                actions: root.actions
            }
            SettingsView {
                id: settingsView
                store: root.store
                actions: root.actions
            }
        }

        TabBar {
            id: tabs
            objectName: "tabBar"
            Layout.fillWidth: true
            currentIndex: 0
            onCurrentIndexChanged: if (currentIndex === 0) chat.takeKeyboard()
            background: Rectangle {
                color: "#0B0F1E"
                Rectangle { width: parent.width; height: 1; color: Theme.cardBorder }
            }
            Repeater {
                model: [
                    { label: "Kelo", symbol: "sparkles" },
                    { label: "Conexiuni", symbol: "point.3.connected.trianglepath.dotted" },
                    { label: "Setări", symbol: "slider.horizontal.3" }
                ]
                TabButton {
                    objectName: "tab_" + index
                    text: modelData.label
                    focusPolicy: Qt.NoFocus
                    display: AbstractButton.TextUnderIcon
                    icon.name: Symbols.iconName(modelData.symbol)
                    icon.width: 22
                    icon.height: 22
                    implicitHeight: 64
                    font.capitalization: Font.MixedCase
                    font.pixelSize: 13
                }
            }
        }
    }

    Component.onCompleted: chat.takeKeyboard()
}
