import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Kelo
import Kelo.Core

// Connects one gallery service, by OAuth in the browser or with a pasted token.
SheetFrame {
    id: sheet
    property var item: null
    property CompanionActions actions
    property string clientID
    property string clientSecret
    property string manualToken
    property bool isConnecting: false
    property string errorText
    property string oauthStatus

    title: item ? item.name : ""

    function connectWithOAuth() {
        isConnecting = true
        errorText = ""
        oauthStatus = ""
        actions.connectOAuth(item.id, clientID.trim(), clientSecret.trim())
    }

    function saveConnection(token, authLabel) {
        actions.saveGalleryConnection(item.id, token, authLabel)
        close()
    }

    onOpened: {
        clientID = ""
        clientSecret = ""
        manualToken = ""
        errorText = ""
        oauthStatus = ""
        isConnecting = false
    }
    onClosed: if (isConnecting) actions.cancelOAuth()

    Connections {
        target: sheet.actions
        ignoreUnknownSignals: true
        function onOauthStatusChanged(text) {
            if (sheet.isConnecting)
                sheet.oauthStatus = text
        }
        function onOauthFinished(itemID, token, error) {
            if (!sheet.isConnecting || !sheet.item || itemID !== sheet.item.id)
                return
            sheet.isConnecting = false
            if (error.length > 0)
                sheet.errorText = error
            else
                sheet.saveConnection(token, "OAuth")
        }
    }

    RowLayout {
        Layout.fillWidth: true
        spacing: 12
        Rectangle {
            Layout.preferredWidth: 44
            Layout.preferredHeight: 44
            radius: 12
            readonly property color tint: ViewPresets.tintColor(sheet.item ? sheet.item.tintName : "")
            color: Qt.rgba(tint.r, tint.g, tint.b, 0.18)
            SymbolIcon { anchors.centerIn: parent; symbol: sheet.item ? sheet.item.symbol : ""; size: 22; color: parent.tint }
        }
        ColumnLayout {
            Layout.fillWidth: true
            spacing: 2
            Label { text: sheet.item ? sheet.item.subtitle : ""; color: Theme.text; font.pixelSize: 14 }
            Label {
                text: sheet.item ? sheet.item.endpoint : ""
                color: Theme.tertiaryText
                font.pixelSize: 12
                elide: Text.ElideMiddle
                Layout.fillWidth: true
            }
        }
    }
    Label {
        text: sheet.item ? sheet.item.note : ""
        color: Theme.secondaryText
        font.pixelSize: 12
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }

    FormSection {
        title: "OAuth"
        FieldRow {
            objectName: "clientIDField"
            placeholder: "Client ID · opțional dacă există DCR"
            value: sheet.clientID
            onEdited: text => sheet.clientID = text
        }
        FieldRow {
            objectName: "clientSecretField"
            placeholder: "Client Secret · dacă providerul îl cere"
            secret: true
            value: sheet.clientSecret
            onEdited: text => sheet.clientSecret = text
        }
        RowLayout {
            Layout.fillWidth: true
            ActionButton {
                objectName: "oauthButton"
                text: sheet.isConnecting ? "Conectez…" : "Conectează cu OAuth"
                symbol: "person.badge.key.fill"
                busy: sheet.isConnecting
                enabled: !sheet.isConnecting && sheet.item !== null
                onClicked: sheet.connectWithOAuth()
            }
            Item { Layout.fillWidth: true }
            Button {
                objectName: "cancelOAuthButton"
                visible: sheet.isConnecting
                text: "Anulează"
                flat: true
                font.capitalization: Font.MixedCase
                focusPolicy: Qt.NoFocus
                onClicked: {
                    sheet.actions.cancelOAuth()
                    sheet.isConnecting = false
                }
            }
        }
        Label {
            objectName: "oauthStatus"
            visible: sheet.isConnecting && sheet.oauthStatus.length > 0
            text: sheet.oauthStatus
            color: Theme.secondaryText
            font.pixelSize: 12
            wrapMode: Text.Wrap
            Layout.fillWidth: true
        }
        RowLayout {
            visible: sheet.errorText.length > 0
            Layout.fillWidth: true
            SymbolIcon { symbol: "exclamationmark.triangle.fill"; size: 16; color: Theme.warning }
            Label {
                objectName: "oauthError"
                text: sheet.errorText
                color: Theme.warning
                font.pixelSize: 13
                wrapMode: Text.Wrap
                Layout.fillWidth: true
            }
        }
    }

    FormSection {
        title: "Token manual"
        FieldRow {
            objectName: "manualTokenField"
            placeholder: "Bearer token / PAT"
            secret: true
            value: sheet.manualToken
            onEdited: text => sheet.manualToken = text
        }
        ActionButton {
            objectName: "saveTokenButton"
            text: "Salvează conexiunea"
            symbol: "checkmark.circle"
            enabled: sheet.manualToken.trim().length > 0
            onClicked: sheet.saveConnection(sheet.manualToken.trim(), "Token")
        }
    }
    Item { Layout.preferredHeight: 8 }
}
