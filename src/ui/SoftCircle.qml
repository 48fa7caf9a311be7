import QtQuick
import QtQuick.Shapes

// A circle filled with a radial gradient that fades to transparent: a blurred light without a blur pass.
Shape {
    id: circle
    property color color: "white"
    property real strength: 0.5
    property real diameter: 200

    width: diameter
    height: diameter
    ShapePath {
        strokeWidth: -1
        strokeColor: "transparent"
        fillGradient: RadialGradient {
            centerX: circle.diameter / 2; centerY: circle.diameter / 2
            centerRadius: circle.diameter / 2
            focalX: centerX; focalY: centerY
            GradientStop { position: 0.0; color: Qt.rgba(circle.color.r, circle.color.g, circle.color.b, circle.strength) }
            GradientStop { position: 0.45; color: Qt.rgba(circle.color.r, circle.color.g, circle.color.b, circle.strength * 0.45) }
            GradientStop { position: 1.0; color: Qt.rgba(circle.color.r, circle.color.g, circle.color.b, 0) }
        }
        PathAngleArc {
            centerX: circle.diameter / 2; centerY: circle.diameter / 2
            radiusX: circle.diameter / 2; radiusY: circle.diameter / 2
            startAngle: 0; sweepAngle: 360
        }
    }
}
