import QtQuick
import QtQuick.Shapes
import "ViewLogic.js" as Logic

// The animated companion: a breathing halo, a turning angular-gradient ring, a glowing core and the
// state glyph. Only item transforms change from frame to frame, so the shapes are tessellated once
// per mood and each frame costs a transform update.
Item {
    id: orb

    property string mood: "idle"
    property real audioLevel: 0
    // False while the window is hidden: no frame is requested then.
    property bool animating: true
    property bool pressed: false
    // Seconds of the frame clock; frames are thinned to what the mood needs.
    property real t: 0

    readonly property var palette: Logic.orbPalette(mood)
    readonly property real size: Math.min(width, height)

    implicitWidth: 280
    implicitHeight: 280

    // Seconds since the orb first appeared; both clocks below read it, so switching between them
    // never makes the motion jump.
    readonly property double clockStart: Date.now()
    function tick() {
        t = (Date.now() - clockStart) / 1000
    }

    // The active moods follow the display's frame clock, thinned to the mood's frame rate.
    FrameAnimation {
        property real pending: 0
        running: orb.animating && orb.visible && orb.mood !== "idle"
        onTriggered: {
            pending += frameTime
            if (pending >= Logic.frameInterval(orb.mood)) {
                pending = 0
                orb.tick()
            }
        }
    }
    // At rest a plain timer suffices: a frame clock would wake the renderer on every display frame
    // only to skip most of them.
    Timer {
        interval: Math.round(Logic.frameInterval("idle") * 1000)
        repeat: true
        running: orb.animating && orb.visible && orb.mood === "idle"
        onTriggered: orb.tick()
    }

    Item {
        id: stage
        width: orb.size
        height: orb.size
        anchors.centerIn: parent
        scale: orb.pressed ? 0.94 : 1
        Behavior on scale { NumberAnimation { duration: 160; easing.type: Easing.OutCubic } }

        // Outer halo that breathes.
        SoftCircle {
            anchors.centerIn: parent
            diameter: stage.width * 0.86
            color: orb.palette[1]
            strength: 0.42
            scale: Logic.haloScale(orb.t)
        }

        // Two inner lights, scaled up and drifting against each other.
        SoftCircle {
            anchors.centerIn: parent
            anchors.horizontalCenterOffset: stage.width * 0.06 * Math.sin(orb.t * 0.5)
            anchors.verticalCenterOffset: -stage.width * 0.05 * Math.cos(orb.t * 0.4)
            diameter: stage.width * 0.46
            color: orb.palette[0]
            strength: 0.55
            scale: 1.38
        }
        SoftCircle {
            anchors.centerIn: parent
            anchors.horizontalCenterOffset: -stage.width * 0.07 * Math.cos(orb.t * 0.45)
            anchors.verticalCenterOffset: stage.width * 0.06 * Math.sin(orb.t * 0.35)
            diameter: stage.width * 0.46
            color: orb.palette[2]
            strength: 0.6
            scale: 1.38
        }

        // The core sphere.
        Shape {
            id: core
            anchors.centerIn: parent
            width: stage.width * 0.58
            height: width
            scale: Logic.coreScale(orb.mood, orb.audioLevel)
            Behavior on scale { NumberAnimation { duration: 90 } }
            ShapePath {
                strokeWidth: -1
                strokeColor: "transparent"
                fillGradient: RadialGradient {
                    centerX: core.width * 0.5; centerY: core.height * 0.5
                    focalX: core.width * 0.36; focalY: core.height * 0.3
                    centerRadius: stage.width * 0.54
                    GradientStop { position: 0.0; color: Qt.lighter(orb.palette[0], 1.35) }
                    GradientStop { position: 0.28; color: orb.palette[0] }
                    GradientStop { position: 0.55; color: orb.palette[2] }
                    GradientStop { position: 1.0; color: "#0A0C22" }
                }
                PathAngleArc {
                    centerX: core.width / 2; centerY: core.height / 2
                    radiusX: core.width / 2; radiusY: core.height / 2
                    startAngle: 0; sweepAngle: 360
                }
            }
        }

        // The turning ring.
        Shape {
            id: ring
            anchors.centerIn: parent
            width: stage.width * 0.74
            height: width
            rotation: Logic.ringAngle(orb.t, orb.mood) % 360
            readonly property real thickness: Math.max(3, stage.width * 0.022)
            ShapePath {
                strokeWidth: -1
                strokeColor: "transparent"
                fillRule: ShapePath.OddEvenFill
                fillGradient: ConicalGradient {
                    centerX: ring.width / 2; centerY: ring.height / 2
                    angle: 0
                    GradientStop { position: 0.0; color: Qt.rgba(1, 1, 1, 0.95) }
                    GradientStop { position: 0.2; color: orb.palette[0] }
                    GradientStop { position: 0.5; color: Qt.rgba(0, 0, 0, 0) }
                    GradientStop { position: 0.75; color: orb.palette[2] }
                    GradientStop { position: 1.0; color: Qt.rgba(1, 1, 1, 0.95) }
                }
                PathAngleArc {
                    centerX: ring.width / 2; centerY: ring.height / 2
                    radiusX: ring.width / 2; radiusY: ring.height / 2
                    startAngle: 0; sweepAngle: 360
                }
                PathAngleArc {
                    moveToStart: true
                    centerX: ring.width / 2; centerY: ring.height / 2
                    radiusX: ring.width / 2 - ring.thickness; radiusY: ring.height / 2 - ring.thickness
                    startAngle: 0; sweepAngle: 360
                }
            }
        }

        SymbolIcon {
            anchors.centerIn: parent
            symbol: Logic.orbGlyph(orb.mood)
            size: Math.round(stage.width * 0.14)
            color: Qt.rgba(1, 1, 1, 0.92)
        }
    }
}
