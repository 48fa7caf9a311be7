import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Kelo
import Kelo.Core

// Spoken answers: the engine cards, then the fields, voices and previews of the chosen engine.
FormSection {
    id: section
    required property ChatStore store
    property CompanionActions actions
    property bool wide: true
    readonly property AppSettings settings: store.settings
    readonly property string engine: settings.voiceEngine

    objectName: "voiceSection"
    title: "Voce"
    footer: "Vocea locală rulează complet pe acest calculator. Google Cloud și Azure oferă free tiers pentru anumite configurații; limitele și condițiile sunt stabilite de provider. ElevenLabs este păstrat ca opțiune de calitate."

    SwitchRow {
        objectName: "autoSpeakSwitch"
        text: "Răspunde cu voce"
        checked: section.settings.autoSpeak
        onToggled: on => section.settings.autoSpeak = on
    }
    Label { text: "Motor voce"; color: Theme.secondaryText; font.pixelSize: 12 }
    GridLayout {
        Layout.fillWidth: true
        columns: section.wide ? 2 : 1
        columnSpacing: 10
        rowSpacing: 10
        Repeater {
            model: ViewPresets.voiceEngineCards
            EngineCard {
                objectName: "engineCard_" + modelData.key
                Layout.fillWidth: true
                Layout.fillHeight: true
                Layout.preferredWidth: 1
                engine: modelData
                selected: section.engine === modelData.engine
                onChosen: section.settings.voiceEngine = modelData.engine
            }
        }
    }
    RowLayout {
        visible: section.store.synthesizer.lastError.length > 0
        Layout.fillWidth: true
        SymbolIcon { symbol: "exclamationmark.circle"; size: 16; color: Theme.danger }
        Label {
            objectName: "speechError"
            text: section.store.synthesizer.lastError
            color: Theme.danger
            wrapMode: Text.Wrap
            font.pixelSize: 13
            Layout.fillWidth: true
        }
    }

    ColumnLayout {
        objectName: "localEngineRows"
        visible: section.engine === "Apple Local"
        Layout.fillWidth: true
        spacing: 8
        RowLayout {
            Layout.fillWidth: true
            Label { text: "Voce română"; color: Theme.text; font.pixelSize: 15 }
            ComboBox {
                objectName: "localVoicePicker"
                focusPolicy: Qt.NoFocus
                Layout.fillWidth: true
                // The automatic entry (empty identifier) first, then the Romanian voices.
                readonly property var options: [{ identifier: "", label: ViewPresets.automaticVoiceLabel }].concat(
                    Array.from(section.store.synthesizer.romanianVoices,
                               voice => ({ identifier: voice.identifier, label: voice.name + " · " + voice.quality })))
                model: options
                textRole: "label"
                valueRole: "identifier"
                currentIndex: Math.max(0, options.findIndex(option => option.identifier === section.settings.voiceIdentifier))
                onActivated: index => section.settings.voiceIdentifier = options[index].identifier
            }
        }
        RowLayout {
            Layout.fillWidth: true
            Label { text: "Vocea detectată"; color: Theme.secondaryText; font.pixelSize: 13 }
            Label {
                text: section.store.synthesizer.bestVoiceDescription || "—"
                color: Theme.text
                font.pixelSize: 13
                elide: Text.ElideRight
                horizontalAlignment: Text.AlignRight
                Layout.fillWidth: true
            }
        }
        RowLayout {
            Layout.fillWidth: true
            Label { text: "Viteză"; color: Theme.text; font.pixelSize: 15 }
            Slider {
                objectName: "voiceRateSlider"
                Layout.fillWidth: true
                focusPolicy: Qt.NoFocus
                from: 0.4
                to: 0.52
                stepSize: 0.01
                value: section.settings.voiceRate
                onMoved: section.settings.voiceRate = Math.round(value * 100) / 100
            }
            Label {
                text: Number(section.settings.voiceRate).toFixed(2)
                color: Theme.secondaryText
                font.pixelSize: 13
            }
        }
        RowLayout {
            Layout.fillWidth: true
            ActionButton {
                objectName: "localPreviewButton"
                text: "Ascultă vocea"
                symbol: "play"
                onClicked: section.actions.previewVoice("Apple Local")
            }
            Item { Layout.fillWidth: true }
            ActionButton {
                text: "Instalează / gestionează vocile sistemului"
                symbol: "arrow.down.circle"
                onClicked: if (!section.actions.openSpeechSettings()) voiceHelp.open()
            }
        }
    }

    ColumnLayout {
        objectName: "googleEngineRows"
        visible: section.engine === "Google Cloud TTS"
        Layout.fillWidth: true
        spacing: 8
        FieldRow {
            label: "Google Cloud API key"
            placeholder: "Google Cloud API key"
            secret: true
            value: section.settings.googleTTSAPIKey
            onEdited: text => section.settings.googleTTSAPIKey = text
        }
        CloudVoicePicker {
            title: "Voce Google"
            voices: section.store.synthesizer.googleVoices
            value: section.settings.googleVoiceName
            onPicked: id => section.settings.googleVoiceName = id
        }
        FieldRow {
            label: "Voice ID"
            value: section.settings.googleVoiceName
            onEdited: text => section.settings.googleVoiceName = text
        }
        Label {
            text: "Preset recomandat pentru test: ro-RO-Wavenet-B. Din API poți încărca toate vocile ro-RO disponibile contului."
            color: Theme.secondaryText
            font.pixelSize: 12
            wrapMode: Text.Wrap
            Layout.fillWidth: true
        }
        VoiceButtons { engine: "Google Cloud TTS" }
    }

    ColumnLayout {
        objectName: "azureEngineRows"
        visible: section.engine === "Azure Speech"
        Layout.fillWidth: true
        spacing: 8
        FieldRow {
            label: "Azure Speech key"
            placeholder: "Azure Speech key"
            secret: true
            value: section.settings.azureSpeechKey
            onEdited: text => section.settings.azureSpeechKey = text
        }
        FieldRow {
            label: "Regiune Azure"
            value: section.settings.azureRegion
            onEdited: text => section.settings.azureRegion = text
        }
        CloudVoicePicker {
            title: "Voce Azure"
            voices: section.store.synthesizer.azureVoices
            value: section.settings.azureVoiceName
            onPicked: id => section.settings.azureVoiceName = id
        }
        FieldRow {
            label: "Voice ID"
            value: section.settings.azureVoiceName
            onEdited: text => section.settings.azureVoiceName = text
        }
        Label {
            text: "Preset: ro-RO-AlinaNeural. Azure publică și ro-RO-EmilNeural, iar unele conturi/regiuni pot avea voci HD suplimentare."
            color: Theme.secondaryText
            font.pixelSize: 12
            wrapMode: Text.Wrap
            Layout.fillWidth: true
        }
        VoiceButtons { engine: "Azure Speech" }
    }

    ColumnLayout {
        objectName: "elevenEngineRows"
        visible: section.engine === "ElevenLabs"
        Layout.fillWidth: true
        spacing: 8
        FieldRow {
            label: "ElevenLabs API key"
            placeholder: "ElevenLabs API key"
            secret: true
            value: section.settings.elevenAPIKey
            onEdited: text => section.settings.elevenAPIKey = text
        }
        CloudVoicePicker {
            title: "Voce ElevenLabs"
            voices: section.store.synthesizer.elevenVoices
            value: section.settings.elevenVoiceID
            onPicked: id => section.settings.elevenVoiceID = id
        }
        VoiceButtons { engine: "ElevenLabs" }
    }

    component VoiceButtons: RowLayout {
        property string engine
        Layout.fillWidth: true
        ActionButton {
            objectName: "loadVoicesButton"
            text: "Încarcă vocile"
            symbol: "waveform.badge.plus"
            busy: section.store.synthesizer.isLoadingVoices
            enabled: !busy
            onClicked: section.actions.loadVoices(parent.engine)
        }
        Item { Layout.fillWidth: true }
        ActionButton {
            objectName: "previewVoiceButton"
            text: "Testează vocea"
            symbol: "play"
            busy: section.store.synthesizer.isPreparingVoice
            onClicked: section.actions.previewVoice(parent.engine)
        }
    }

    component CloudVoicePicker: RowLayout {
        id: picker
        property string title
        property var voices: []
        property string value
        signal picked(string id)
        Layout.fillWidth: true
        Label { text: picker.title; color: Theme.text; font.pixelSize: 15 }
        ComboBox {
            Layout.fillWidth: true
            focusPolicy: Qt.NoFocus
            readonly property var options: {
                var list = Array.from(picker.voices, voice => ({
                    id: voice.id, label: [voice.name, voice.gender, voice.detail].filter(part => part.length > 0).join(" · ")
                }))
                // A voice typed by id but not (yet) in the loaded list stays selectable.
                if (picker.value.length > 0 && list.every(option => option.id !== picker.value))
                    list.unshift({ id: picker.value, label: picker.value })
                return list
            }
            model: options
            textRole: "label"
            currentIndex: options.findIndex(option => option.id === picker.value)
            displayText: currentIndex < 0 ? "Încarcă vocile din API" : currentText
            onActivated: index => picker.picked(options[index].id)
        }
    }

    SheetFrame {
        id: voiceHelp
        objectName: "voiceHelp"
        parent: Overlay.overlay
        title: "Voci românești"
        Label {
            Layout.fillWidth: true
            wrapMode: Text.Wrap
            color: Theme.text
            text: "Vocea locală folosește sintetizatorul sistemului (speech-dispatcher cu espeak-ng). "
                  + "Pentru voci românești instalează pachetele „speech-dispatcher” și „espeak-ng”, "
                  + "apoi repornește Kelo. Vocile instalate apar automat în lista „Voce română”."
        }
        Item { Layout.preferredHeight: 8 }
    }
}
