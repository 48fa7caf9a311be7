import QtQuick
import QtQuick.Controls
import QtQuick.Controls.Material
import QtQuick.Layouts
import Kelo
import Kelo.Core
import "ViewLogic.js" as Logic

// The "Conexiuni" tab: what Kelo can do, the connected MCP servers and the gallery of services.
Item {
    id: view

    required property ChatStore store
    property CompanionActions actions

    Material.theme: Material.Dark
    Material.accent: Theme.accent

    readonly property var servers: store.settings.mcpServers
    property var selectedGalleryItem: null
    property string checkingServerID: ""
    property string toolResult: ""

    function checkServer(server) {
        checkingServerID = server.id
        actions.checkServer(server.id).then(function (text) {
            // A late answer for a server no longer being checked is not shown.
            if (server.id !== view.checkingServerID)
                return
            view.toolResult = text
            view.checkingServerID = ""
        })
    }

    function openGalleryItem(item) {
        selectedGalleryItem = item
        connectSheet.open()
    }

    AuroraBackground { anchors.fill: parent }

    ScrollView {
        id: scroll
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
                text: "Conexiuni"
                font.pixelSize: 28
                font.bold: true
                color: Theme.text
            }

            FormSection {
                title: "Integrate"
                Label {
                    text: "Kelo trimite modelului manifestul skillurilor active și lasă modelul să aleagă automat instrumentul potrivit. Nu rulează MCP-uri pentru conversație obișnuită."
                    color: Theme.secondaryText
                    font.pixelSize: 13
                    wrapMode: Text.Wrap
                    Layout.fillWidth: true
                }
                FeatureRow {
                    icon: "globe.americas"; tint: Theme.cyan
                    title: "Internet"
                    subtitle: "Context web când întrebarea are nevoie de informație actuală"
                }
                FeatureRow {
                    icon: "waveform"; tint: "#FF6FAE"
                    title: "Voice"
                    subtitle: "Vocea locală, Google Cloud, Azure și ElevenLabs"
                }
                FeatureRow {
                    icon: "bolt.horizontal.circle"; tint: Theme.warning
                    title: "OpenCode Zen"
                    subtitle: "Big Pickle implicit + modele încărcate direct din API"
                }
                FeatureRow {
                    icon: "wand.and.stars"; tint: "#A565F2"
                    title: "Skill routing automat"
                    subtitle: "MCP-urile sunt apelate numai când modelul are nevoie de ele"
                }
            }

            FormSection {
                objectName: "connectedSection"
                title: "Conectat"
                ColumnLayout {
                    objectName: "emptyServers"
                    visible: view.servers.length === 0
                    Layout.fillWidth: true
                    spacing: 6
                    SymbolIcon {
                        Layout.alignment: Qt.AlignHCenter
                        symbol: "point.3.connected.trianglepath.dotted"
                        size: 30
                        color: Theme.tertiaryText
                    }
                    Label {
                        Layout.alignment: Qt.AlignHCenter
                        text: "Nicio conexiune activă"
                        color: Theme.text
                        font.pixelSize: 15
                        font.bold: true
                    }
                    Label {
                        Layout.fillWidth: true
                        horizontalAlignment: Text.AlignHCenter
                        text: "Alege un serviciu din galerie sau adaugă un endpoint MCP manual."
                        color: Theme.secondaryText
                        font.pixelSize: 12
                        wrapMode: Text.Wrap
                    }
                }
                Repeater {
                    objectName: "serverRepeater"
                    model: view.servers
                    ServerRow {
                        objectName: "serverRow_" + index
                        server: modelData
                        checking: view.checkingServerID === modelData.id
                        onToggleRequested: view.actions.setServerEnabled(modelData.id, !modelData.enabled)
                        onCheckRequested: view.checkServer(modelData)
                        onDeleteRequested: view.actions.removeServer(modelData.id)
                    }
                }
                ColumnLayout {
                    visible: view.toolResult.length > 0
                    Layout.fillWidth: true
                    spacing: 4
                    Label { text: "Ultimul test MCP"; color: Theme.secondaryText; font.pixelSize: 12; font.bold: true }
                    Label {
                        objectName: "toolResult"
                        text: view.toolResult
                        color: Theme.text
                        font.pixelSize: 13
                        font.family: "monospace"
                        wrapMode: Text.Wrap
                        Layout.fillWidth: true
                    }
                }
            }

            FormSection {
                title: "MCP Galerie"
                Repeater {
                    model: view.actions ? view.actions.gallery : []
                    MCPGalleryRow {
                        objectName: "galleryRow_" + modelData.id
                        item: modelData
                        connected: Logic.isGalleryItemConnected(view.servers, modelData.id)
                        onClicked: view.openGalleryItem(modelData)
                    }
                }
            }

            ActionButton {
                objectName: "manualAddButton"
                Layout.alignment: Qt.AlignHCenter
                text: "Adaugă endpoint manual"
                symbol: "plus.circle"
                onClicked: manualSheet.open()
            }
            Item { Layout.preferredHeight: 24 }
        }
    }

    MCPConnectSheet {
        id: connectSheet
        objectName: "connectSheet"
        parent: view
        item: view.selectedGalleryItem
        actions: view.actions
        onClosed: view.selectedGalleryItem = null
    }

    ManualMCPSheet {
        id: manualSheet
        objectName: "manualSheet"
        parent: view
        actions: view.actions
    }
}
