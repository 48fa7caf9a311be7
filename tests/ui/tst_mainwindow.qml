import QtQuick
import QtTest
import Kelo.Testing

Item {
    width: 10
    height: 10

    TestCase {
        name: "MainWindow"
        when: windowShown

        function openWindow(trayAvailable) {
            var component = Qt.createComponent("qrc:/qt/qml/Kelo/Main.qml")
            compare(component.status, Component.Ready, component.errorString())
            var window = component.createObject(null, { store: Real.store, actions: Real.actions, trayAvailable: trayAvailable })
            window.show()
            tryVerify(function () { return window.visible })
            return window
        }

        // Without a tray, closing really closes; with one, the window hides and stops drawing the orb.
        function test_closingHidesToTheTrayAndStopsTheOrb() {
            Real.store.settings.backgroundConversationEnabled = true
            var accepted = []
            var trayless = openWindow(false)
            trayless.closing.connect(function (close) { accepted.push(close.accepted) })
            trayless.close()
            tryVerify(function () { return !trayless.visible })
            trayless.destroy()

            var window = openWindow(true)
            window.closing.connect(function (close) { accepted.push(close.accepted) })
            var root = findChild(window.contentItem, "rootView")
            var orb = findChild(window.contentItem, "orb")
            compare(findChild(window.contentItem, "tabStack").currentIndex, 0)
            tryVerify(function () { return root.animating })

            window.close()
            tryVerify(function () { return !window.visible })
            tryVerify(function () { return !root.animating })
            wait(50)
            var frozen = orb.t
            wait(300)
            compare(orb.t, frozen, "a hidden window draws no frames")
            compare(accepted, [true, false], "closed without a tray, only hidden with one")

            window.show()
            tryVerify(function () { return root.animating })
            tryVerify(function () { return orb.t > frozen })
            window.destroy()
        }
    }
}
