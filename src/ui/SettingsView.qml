import QtQuick
import QtQuick.Controls
import QtQuick.Controls.Material
import QtQuick.Layouts
import "ViewLogic.js" as Logic

// Every preference, the key test, the voice lists and previews, and the memory reset. Each control
// writes its property at once; the settings object persists it.
Item {
    id: view

    required property var store
    property var actions

    Material.theme: Material.Dark
    Material.accent: Theme.accent

    readonly property var settings: store ? store.settings : null
    readonly property var recognizer: store ? store.recognizer : null
    readonly property var synthesizer: store ? store.synthesizer : null
    readonly property string engine: settings ? settings.voiceEngine : "Apple Local"
    property string zenTestStatus: ""
    property bool isTestingZen: false
    property alias flickable: scroll.contentItem

    Connections {
        target: view.actions
        ignoreUnknownSignals: true
        function onZenConnectionTested(text) {
            view.zenTestStatus = text
            view.isTestingZen = false
        }
    }

    function testZen() {
        isTestingZen = true
        zenTestStatus = ""
        actions.testZenConnection()
    }

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

            // --- OpenCode Zen ---
            FormSection {
                objectName: "zenSection"
                title: "OpenCode Zen"
                footer: "Niciun LLM nu se descarcă pe calculator. Inferența text rulează prin API, deci calculatorul rămâne mult mai rece și consumă semnificativ mai puțină memorie."
                FieldRow {
                    objectName: "zenKeyField"
                    label: "OpenCode Zen API key"
                    placeholder: "OpenCode Zen API key"
                    secret: true
                    value: view.settings.zenAPIKey
                    onEdited: text => view.settings.zenAPIKey = text
                }
                Label {
                    visible: view.settings.secretsInFile === true
                    text: "Nu există un serviciu de chei securizat: cheile sunt păstrate într-un fișier protejat din directorul de configurare."
                    color: Theme.warning
                    font.pixelSize: 12
                    wrapMode: Text.Wrap
                    Layout.fillWidth: true
                }
                RowLayout {
                    Layout.fillWidth: true
                    Label { text: "Model"; color: Theme.text; font.pixelSize: 15 }
                    ComboBox {
                        id: modelPicker
                        objectName: "modelPicker"
                        Layout.fillWidth: true
                        focusPolicy: Qt.NoFocus
                        readonly property var options: {
                            var models = view.store.zenModels || []
                            var list = []
                            for (var i = 0; i < models.length; ++i)
                                list.push({ id: models[i].id, label: Logic.modelOptionLabel(models[i]) })
                            if (Logic.indexOfValue(list, "id", view.settings.zenModelID) === -1)
                                list.unshift({ id: view.store.selectedZenModel.id,
                                               label: Logic.modelOptionLabel(view.store.selectedZenModel) })
                            return list
                        }
                        model: options
                        textRole: "label"
                        valueRole: "id"
                        currentIndex: Logic.indexOfValue(options, "id", view.settings.zenModelID)
                        onActivated: index => view.settings.zenModelID = options[index].id
                    }
                }
                RowLayout {
                    Layout.fillWidth: true
                    ActionButton {
                        objectName: "testZenButton"
                        text: view.isTestingZen ? "Testez…" : "Testează cheia"
                        symbol: "bolt.horizontal.circle"
                        busy: view.isTestingZen
                        enabled: !view.isTestingZen
                        onClicked: view.testZen()
                    }
                    Item { Layout.fillWidth: true }
                    ActionButton {
                        objectName: "reloadModelsButton"
                        text: "Modele"
                        symbol: "arrow.clockwise"
                        onClicked: view.store.reloadZenModels()
                    }
                }
                Label {
                    objectName: "zenTestStatus"
                    visible: view.zenTestStatus.length > 0
                    text: view.zenTestStatus
                    color: view.zenTestStatus.indexOf("Conectat") === 0 ? Theme.accent : Theme.danger
                    wrapMode: Text.Wrap
                    Layout.fillWidth: true
                }
                Label {
                    visible: (view.store.zenError || "").length > 0
                    text: view.store.zenError || ""
                    color: Theme.danger
                    font.pixelSize: 12
                    wrapMode: Text.Wrap
                    Layout.fillWidth: true
                }
                Label {
                    text: "Lista de modele este citită direct din OpenCode Zen. Big Pickle este selectat implicit și apare ca model gratuit când este disponibil."
                    color: Theme.secondaryText
                    font.pixelSize: 12
                    wrapMode: Text.Wrap
                    Layout.fillWidth: true
                }
            }

            // --- Companion ---
            FormSection {
                title: "Companion"
                RowLayout {
                    Layout.fillWidth: true
                    Label { text: "Personalitate"; color: Theme.text; font.pixelSize: 15; Layout.fillWidth: true }
                    ComboBox {
                        objectName: "personalityPicker"
                        focusPolicy: Qt.NoFocus
                        Layout.preferredWidth: 200
                        model: ["Calm", "Creativ", "Direct", "Companion"]
                        currentIndex: model.indexOf(view.settings.personality)
                        onActivated: index => view.settings.personality = model[index]
                    }
                }
                RowLayout {
                    Layout.fillWidth: true
                    Label { text: "Lungime răspuns"; color: Theme.text; font.pixelSize: 15; Layout.fillWidth: true }
                    ComboBox {
                        objectName: "lengthPicker"
                        focusPolicy: Qt.NoFocus
                        Layout.preferredWidth: 200
                        model: ["Scurt", "Echilibrat", "Detaliat"]
                        currentIndex: model.indexOf(view.settings.responseLength)
                        onActivated: index => view.settings.responseLength = model[index]
                    }
                }
                Label { text: "Instrucțiuni personale"; color: Theme.secondaryText; font.pixelSize: 12 }
                TextArea {
                    objectName: "customPrompt"
                    Layout.fillWidth: true
                    Layout.minimumHeight: 90
                    wrapMode: TextEdit.Wrap
                    text: view.settings.customPrompt
                    onTextChanged: if (text !== view.settings.customPrompt) view.settings.customPrompt = text
                    placeholderText: "Instrucțiuni personale"
                }
            }

            // --- Voce ---
            FormSection {
                objectName: "voiceSection"
                title: "Voce"
                footer: "Vocea locală rulează complet pe acest calculator. Google Cloud și Azure oferă free tiers pentru anumite configurații; limitele și condițiile sunt stabilite de provider. ElevenLabs este păstrat ca opțiune de calitate."
                SwitchRow {
                    objectName: "autoSpeakSwitch"
                    text: "Răspunde cu voce"
                    checked: view.settings.autoSpeak
                    onToggled: on => view.settings.autoSpeak = on
                }
                Label { text: "Motor voce"; color: Theme.secondaryText; font.pixelSize: 12 }
                GridLayout {
                    Layout.fillWidth: true
                    columns: form.width > 520 ? 2 : 1
                    columnSpacing: 10
                    rowSpacing: 10
                    Repeater {
                        model: Logic.engineCards
                        EngineCard {
                            objectName: "engineCard_" + modelData.key
                            Layout.fillWidth: true
                            Layout.fillHeight: true
                            Layout.preferredWidth: 1
                            engine: modelData
                            selected: view.engine === modelData.engine
                            onChosen: view.settings.voiceEngine = modelData.engine
                        }
                    }
                }
                RowLayout {
                    visible: (view.synthesizer.lastError || "").length > 0
                    Layout.fillWidth: true
                    SymbolIcon { symbol: "exclamationmark.circle"; size: 16; color: Theme.danger }
                    Label {
                        objectName: "speechError"
                        text: view.synthesizer.lastError || ""
                        color: Theme.danger
                        wrapMode: Text.Wrap
                        font.pixelSize: 13
                        Layout.fillWidth: true
                    }
                }
                // Recognition always runs on this computer; what can change is the model it uses,
                // shown here with a download on request.
                ColumnLayout {
                    id: recognitionModel
                    objectName: "recognitionModelRows"
                    readonly property var models: view.recognizer ? view.recognizer.recognitionModels : null
                    visible: !!models
                    Layout.fillWidth: true
                    spacing: 6
                    Label {
                        objectName: "recognitionPlace"
                        text: "Recunoaștere vocală pe acest calculator (whisper.cpp): vocea ta nu pleacă spre niciun serviciu."
                        color: Theme.text
                        font.pixelSize: 15
                        wrapMode: Text.Wrap
                        Layout.fillWidth: true
                    }
                    Label {
                        objectName: "recognitionModelStatus"
                        text: recognitionModel.models ? recognitionModel.models.statusText : ""
                        color: recognitionModel.models && recognitionModel.models.modelAvailable
                               ? Theme.secondaryText : Theme.warning
                        wrapMode: Text.Wrap
                        font.pixelSize: 12
                        Layout.fillWidth: true
                    }
                    ProgressBar {
                        objectName: "recognitionModelProgress"
                        visible: recognitionModel.models && recognitionModel.models.isDownloading
                        value: recognitionModel.models ? recognitionModel.models.downloadProgress : 0
                        Layout.fillWidth: true
                    }
                    Label {
                        visible: text.length > 0
                        text: recognitionModel.models ? recognitionModel.models.downloadError : ""
                        color: Theme.danger
                        wrapMode: Text.Wrap
                        font.pixelSize: 12
                        Layout.fillWidth: true
                    }
                    Flow {
                        Layout.fillWidth: true
                        spacing: 8
                        Repeater {
                            model: recognitionModel.models ? recognitionModel.models.catalogue : []
                            ActionButton {
                                readonly property bool downloadingThis: recognitionModel.models.isDownloading
                                    && recognitionModel.models.downloadingModel === modelData.name
                                objectName: "downloadModel_" + modelData.name
                                text: downloadingThis ? "Anulează descărcarea"
                                                      : "Descarcă " + modelData.title + " (" + Math.round(modelData.bytes / 1048576) + " MB)"
                                symbol: downloadingThis ? "xmark.circle" : "arrow.down.circle"
                                enabled: downloadingThis || !recognitionModel.models.isDownloading
                                onClicked: downloadingThis ? recognitionModel.models.cancelDownload()
                                                           : recognitionModel.models.startDownload(modelData.name)
                            }
                        }
                    }
                }

                // Local engine.
                ColumnLayout {
                    objectName: "localEngineRows"
                    visible: view.engine === "Apple Local"
                    Layout.fillWidth: true
                    spacing: 8
                    RowLayout {
                        Layout.fillWidth: true
                        Label { text: "Voce română"; color: Theme.text; font.pixelSize: 15 }
                        ComboBox {
                            id: localVoicePicker
                            objectName: "localVoicePicker"
                            focusPolicy: Qt.NoFocus
                            Layout.fillWidth: true
                            readonly property var options: Logic.localVoiceOptions(view.synthesizer.romanianVoices)
                            model: options
                            textRole: "label"
                            valueRole: "identifier"
                            currentIndex: Math.max(0, Logic.indexOfValue(options, "identifier", view.settings.voiceIdentifier))
                            onActivated: index => view.settings.voiceIdentifier = options[index].identifier
                        }
                    }
                    RowLayout {
                        Layout.fillWidth: true
                        Label { text: "Vocea detectată"; color: Theme.secondaryText; font.pixelSize: 13 }
                        Label {
                            text: view.synthesizer.bestVoiceDescription || "—"
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
                            value: view.settings.voiceRate
                            onMoved: view.settings.voiceRate = Math.round(value * 100) / 100
                        }
                        Label {
                            text: Number(view.settings.voiceRate).toFixed(2)
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
                            onClicked: view.actions.previewVoice("Apple Local")
                        }
                        Item { Layout.fillWidth: true }
                        ActionButton {
                            text: "Instalează / gestionează vocile sistemului"
                            symbol: "arrow.down.circle"
                            onClicked: if (!view.actions.openSpeechSettings()) voiceHelp.open()
                        }
                    }
                }

                // Google Cloud.
                ColumnLayout {
                    objectName: "googleEngineRows"
                    visible: view.engine === "Google Cloud TTS"
                    Layout.fillWidth: true
                    spacing: 8
                    FieldRow {
                        label: "Google Cloud API key"
                        placeholder: "Google Cloud API key"
                        secret: true
                        value: view.settings.googleTTSAPIKey
                        onEdited: text => view.settings.googleTTSAPIKey = text
                    }
                    CloudVoicePicker {
                        title: "Voce Google"
                        voices: view.synthesizer.googleVoices
                        value: view.settings.googleVoiceName
                        onPicked: id => view.settings.googleVoiceName = id
                    }
                    FieldRow {
                        label: "Voice ID"
                        value: view.settings.googleVoiceName
                        onEdited: text => view.settings.googleVoiceName = text
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

                // Azure.
                ColumnLayout {
                    objectName: "azureEngineRows"
                    visible: view.engine === "Azure Speech"
                    Layout.fillWidth: true
                    spacing: 8
                    FieldRow {
                        label: "Azure Speech key"
                        placeholder: "Azure Speech key"
                        secret: true
                        value: view.settings.azureSpeechKey
                        onEdited: text => view.settings.azureSpeechKey = text
                    }
                    FieldRow {
                        label: "Regiune Azure"
                        value: view.settings.azureRegion
                        onEdited: text => view.settings.azureRegion = text
                    }
                    CloudVoicePicker {
                        title: "Voce Azure"
                        voices: view.synthesizer.azureVoices
                        value: view.settings.azureVoiceName
                        onPicked: id => view.settings.azureVoiceName = id
                    }
                    FieldRow {
                        label: "Voice ID"
                        value: view.settings.azureVoiceName
                        onEdited: text => view.settings.azureVoiceName = text
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

                // ElevenLabs.
                ColumnLayout {
                    objectName: "elevenEngineRows"
                    visible: view.engine === "ElevenLabs"
                    Layout.fillWidth: true
                    spacing: 8
                    FieldRow {
                        label: "ElevenLabs API key"
                        placeholder: "ElevenLabs API key"
                        secret: true
                        value: view.settings.elevenAPIKey
                        onEdited: text => view.settings.elevenAPIKey = text
                    }
                    CloudVoicePicker {
                        title: "Voce ElevenLabs"
                        voices: view.synthesizer.elevenVoices
                        value: view.settings.elevenVoiceID
                        onPicked: id => view.settings.elevenVoiceID = id
                    }
                    VoiceButtons { engine: "ElevenLabs" }
                }
            }

            // --- Automatizări ---
            FormSection {
                title: "Automatizări companion"
                SwitchRow {
                    objectName: "backgroundSwitch"
                    text: "Conversație continuă în fundal"
                    note: "Iconița din bara de sistem arată starea conversației. Audio continuă când închizi fereastra sau blochezi ecranul."
                    checked: view.settings.backgroundConversationEnabled
                    onToggled: on => view.settings.backgroundConversationEnabled = on
                }
                SwitchRow {
                    text: "Skilluri MCP automate"
                    checked: view.settings.autoSkillsEnabled
                    onToggled: on => view.settings.autoSkillsEnabled = on
                }
            }

            // --- Internet și conexiuni ---
            FormSection {
                title: "Internet și conexiuni"
                SwitchRow {
                    text: "Permite instrumente web"
                    checked: view.settings.internetEnabled
                    onToggled: on => view.settings.internetEnabled = on
                }
                RowLayout {
                    Layout.fillWidth: true
                    SymbolIcon { symbol: "point.3.connected.trianglepath.dotted"; size: 18; color: Theme.cyan }
                    Label { text: "MCP conectate"; color: Theme.text; font.pixelSize: 15; Layout.fillWidth: true }
                    Label {
                        objectName: "mcpCount"
                        text: String((view.settings.mcpServers || []).length)
                        color: Theme.secondaryText
                        font.pixelSize: 15
                    }
                }
                ActionButton {
                    objectName: "reloadSkillsButton"
                    text: "Reîncarcă skillurile MCP"
                    symbol: "arrow.clockwise"
                    onClicked: view.store.reloadMCPBindings()
                }
            }

            // --- Memorie ---
            FormSection {
                title: "Memorie"
                footer: "Memoria este compactată automat de model și stocată local. Cheile API și tokenurile sunt excluse din instrucțiunea de memorare."
                SwitchRow {
                    text: "Memorie automată"
                    checked: view.settings.memoryEnabled
                    onToggled: on => view.settings.memoryEnabled = on
                }
                Label { text: "Ce își amintește Kelo"; color: Theme.secondaryText; font.pixelSize: 12 }
                Label {
                    objectName: "memorySummary"
                    text: Logic.memoryText(view.store.memory ? view.store.memory.summary : "")
                    color: Theme.text
                    font.pixelSize: 14
                    wrapMode: Text.Wrap
                    Layout.fillWidth: true
                }
                ActionButton {
                    objectName: "clearMemoryButton"
                    text: "Resetează memoria și istoricul"
                    symbol: "trash"
                    destructive: true
                    onClicked: view.actions.clearMemory()
                }
            }

            DoctorSection {
                doctor: view.actions ? view.actions.doctor : null
            }

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

    component VoiceButtons: RowLayout {
        property string engine
        Layout.fillWidth: true
        ActionButton {
            objectName: "loadVoicesButton"
            text: "Încarcă vocile"
            symbol: "waveform.badge.plus"
            busy: view.synthesizer.isLoadingVoices === true
            enabled: !busy
            onClicked: view.actions.loadVoices(parent.engine)
        }
        Item { Layout.fillWidth: true }
        ActionButton {
            objectName: "previewVoiceButton"
            text: "Testează vocea"
            symbol: "play"
            busy: view.synthesizer.isPreparingVoice === true
            onClicked: view.actions.previewVoice(parent.engine)
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
                var list = []
                var source = picker.voices || []
                for (var i = 0; i < source.length; ++i)
                    list.push({ id: source[i].id, label: Logic.cloudVoiceLabel(source[i]) })
                if (picker.value.length > 0 && Logic.indexOfValue(list, "id", picker.value) === -1)
                    list.unshift({ id: picker.value, label: picker.value })
                return list
            }
            model: options
            textRole: "label"
            currentIndex: Logic.indexOfValue(options, "id", picker.value)
            displayText: currentIndex < 0 ? "Încarcă vocile din API" : currentText
            onActivated: index => picker.picked(options[index].id)
        }
    }

    SheetFrame {
        id: voiceHelp
        objectName: "voiceHelp"
        parent: view
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
