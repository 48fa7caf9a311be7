import QtQuick
import QtQuick.Controls
import QtQuick.Controls.Material
import Kelo.Core

// The companion's window. Closing it keeps Kelo in the tray while the background conversation
// switch is on; a hidden window stops the orb's animation.
ApplicationWindow {
    id: window

    required property var store
    property var actions
    property bool trayAvailable: false

    title: "Kelo"
    width: 520
    height: 900
    minimumWidth: 380
    minimumHeight: 560
    color: Theme.background

    Material.theme: Material.Dark
    Material.accent: Theme.accent
    Material.primary: Theme.indigo
    Material.background: Theme.background
    Material.foreground: Theme.text

    // With a tray the application does not quit on its own when the window goes: either Kelo stays
    // in the tray, or closing the window ends it here.
    onClosing: close => {
        if (!trayAvailable)
            return
        if (store.settings.backgroundConversationEnabled) {
            close.accepted = false
            window.hide()
        } else {
            Qt.quit()
        }
    }

    RootView {
        id: root
        objectName: "rootView"
        anchors.fill: parent
        store: window.store
        actions: window.actions
        animating: window.visibility !== Window.Hidden && window.visibility !== Window.Minimized
    }
}
