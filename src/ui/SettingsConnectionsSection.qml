import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Kelo.Core

// What may run by itself and what may reach the internet: background conversation, automatic MCP
// skills, web tools, and the connected servers' count.
ColumnLayout {
    id: section
    required property ChatStore store
    readonly property AppSettings settings: store.settings

    Layout.fillWidth: true
    spacing: 22

    FormSection {
        title: "Automatizări companion"
        SwitchRow {
            objectName: "backgroundSwitch"
            text: "Conversație continuă în fundal"
            note: "Iconița din bara de sistem arată starea conversației. Audio continuă când închizi fereastra sau blochezi ecranul."
            checked: section.settings.backgroundConversationEnabled
            onToggled: on => section.settings.backgroundConversationEnabled = on
        }
        SwitchRow {
            text: "Skilluri MCP automate"
            checked: section.settings.autoSkillsEnabled
            onToggled: on => section.settings.autoSkillsEnabled = on
        }
    }

    FormSection {
        title: "Internet și conexiuni"
        SwitchRow {
            text: "Permite instrumente web"
            checked: section.settings.internetEnabled
            onToggled: on => section.settings.internetEnabled = on
        }
        RowLayout {
            Layout.fillWidth: true
            SymbolIcon { symbol: "point.3.connected.trianglepath.dotted"; size: 18; color: Theme.cyan }
            Label { text: "MCP conectate"; color: Theme.text; font.pixelSize: 15; Layout.fillWidth: true }
            Label {
                objectName: "mcpCount"
                text: String(section.settings.mcpServers.length)
                color: Theme.secondaryText
                font.pixelSize: 15
            }
        }
        ActionButton {
            objectName: "reloadSkillsButton"
            text: "Reîncarcă skillurile MCP"
            symbol: "arrow.clockwise"
            onClicked: section.store.reloadMCPBindings()
        }
    }
}
