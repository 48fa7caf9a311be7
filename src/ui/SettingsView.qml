import QtQuick
import QtQuick.Controls
import QtQuick.Controls.Material
import QtQuick.Layouts
import Kelo
import Kelo.Core

// The settings tab: one section per concern, stacked. Each control writes its property at once; the
// settings object persists it.
Item {
    id: view

    required property ChatStore store
    property CompanionActions actions

    Material.theme: Material.Dark
    Material.accent: Theme.accent

    property alias flickable: scroll.contentItem

    AuroraBackground { anchors.fill: parent }

    ScrollView {
        id: scroll
        objectName: "settingsScroll"
        anchors.fill: parent
        contentWidth: availableWidth
        clip: true

        ColumnLayout {
            id: form
            width: Math.min(scroll.availableWidth - 40, Theme.contentMaxWidth)
            x: (scroll.availableWidth - width) / 2
            spacing: 22

            Item { Layout.preferredHeight: 4 }
            Label {
                text: "Setări"
                font.pixelSize: 28
                font.bold: true
                color: Theme.text
            }

            SettingsModelSection { store: view.store; actions: view.actions }
            SettingsCompanionSection { settings: view.store.settings }
            SettingsVoiceSection { store: view.store; actions: view.actions; wide: form.width > 520 }
            SettingsRecognitionSection { store: view.store }
            SettingsConnectionsSection { store: view.store }
            SettingsMemorySection { store: view.store; actions: view.actions }
            DoctorSection { doctor: view.actions ? view.actions.doctor : null }

            Label {
                text: "Cheile API sunt păstrate în portcheiul desktopului (Secret Service) sau, fără el, într-un fișier protejat. OpenCode Zen, providerul de voce, instrumentele web și MCP-urile primesc doar datele necesare cererilor pe care le activezi."
                color: Theme.tertiaryText
                font.pixelSize: 12
                wrapMode: Text.Wrap
                Layout.fillWidth: true
                Layout.leftMargin: 6
            }
            Item { Layout.preferredHeight: 24 }
        }
    }
}
