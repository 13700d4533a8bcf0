#!/usr/bin/env python3
"""Prints the values that the solver tests compare with.

    scripts/make_solver_table.py brisa|tessel

Run when the tests are configured. An independent calculation, kept apart from the C++ code on purpose: correct each by
the calibration of the hand, never one by the other. Python's floats are IEEE doubles and are not contracted, so that
truncated values can be compared exactly. The random numbers have a fixed seed.
"""

import random
import sys

# The hand with ten joints.
SCALE_TOP = 4096
JOINTS = range(10)
FLEXION = (4, 5, 7, 9)
SIDED = (0, 1, 2, 3, 6, 8)  # joints that count the other way on the mirrored hand

JOINT_LIMITS = [(-0.03, 1.12), (-1.64, 0.05), (0.0, 0.8416), (-0.16, 0.0), (0.0, 1.48),
                (0.0, 1.48), (0.0, 0.17), (0.0, 1.48), (0.0, 0.19), (0.0, 1.48)]
LINEAR_LIMITS = [(-0.03, 1.12), (-1.64, 0.05), (0.0, 1.33), (-0.16, 0.0), (0.0, 1.43),
                 (0.0, 1.43), (0.0, 0.17), (0.0, 1.43), (0.0, 0.19), (0.0, 1.43)]

DISTAL = [0.0, 2.192, -1.425, 0.747, -0.167]
FLEXION_FORWARD = [0.00944480234881967, 0.455882677008572, 0.683758090072141,
                   -0.916673507519311, 0.459387725400186]
FLEXION_INVERSE = [-0.000257594494466942, 1.57144033291557, 0.217395210463076,
                   -0.768328304426314, 0.248168989312469]
THUMB_FORWARD = [0.00126371020922368, 0.919140692758276, 0.550958572722048,
                 -0.785384985903032, 1.25635285116862]
THUMB_INVERSE = [-0.000677604838762652, 1.05175893483608, -0.280133575638901,
                 -0.115384415912668, 0.0676128925382166]
THUMB_TIP_A = [0.0, 1.33]
THUMB_TIP_B = [0.0, 1.846, -0.853, 0.28]

GESTURES = [
    [0.58, -0.21, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0],
    [0.43, -0.3, 0.66, 0.0, 1.48, 1.48, 0.0, 1.48, 0.0, 1.48],
    [0.5, -1.0, 0.75, 0.0, 1.48, 1.48, 0.0, 1.48, 0.0, 1.48],
    [-0.03, -1.51, 0.7, -0.16, 0.85, 0.21, 0.07, 0.153, 0.107, 0.1],
    [0.8, -0.4, 0.47, 0.0, 0.82, 1.48, 0.0, 1.48, 0.0, 1.48],
    [0.27, 0.0, 0.0, 0.0, 1.48, 1.48, 0.0, 1.48, 0.0, 1.48],
    [0.33, 0.0, 0.0, -0.1, 0.0, 1.48, 0.07, 1.48, 0.11, 0.0],
    [0.32, -1.12, 0.79, -0.06, 0.0, 1.48, 0.0, 1.48, 0.0, 1.48],
    [0.48, -1.5, 0.79, -0.16, 0.0, 0.0, 0.0, 1.48, 0.0, 1.48],
    [0.64, -1.48, 0.81, -0.16, 0.0, 0.0, 0.09, 0.0, 0.09, 1.48],
    [0.64, -1.48, 0.81, -0.16, 0.0, 0.0, 0.07, 0.0, 0.15, 0.0],
    [0.4, 0.0, 0.0, 0.0, 1.48, 1.48, 0.05, 1.48, 0.17, 0.0],
    [0.4, 0.0, 0.0, 0.0, 0.0, 1.48, 0.0, 1.48, 0.0, 1.48],
    [-0.03, -1.36, 0.0, 0.0, 0.65, 0.65, 0.0, 0.65, 0.0, 0.65],
    [0.3, -0.1, 0.66, 0.0, 1.1, 1.1, 0.0, 1.1, 0.0, 1.1],
    [0.0, -1.56, 0.46, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0],
    [0.5, -0.8, 0.2, -0.16, 0.6, 0.6, 0.17, 0.6, 0.17, 0.6],
]


# The hand with twelve joints.
INPUT_TOP = 2000
MOTORS = range(12)
TESSEL_LIMITS = [(0.0, 0.94), (-1.39, 0.0), (-0.83, 0.0), (-1.29, 0.0),
                 (-0.26, 0.26), (0.0, 1.35), (0.0, 1.53),
                 (-0.26, 0.26), (0.0, 1.36), (0.0, 1.82), (0.0, 1.55), (0.0, 1.54)]
# The length [m] of each motor at input 0; at the top input all lengths are zero.
TRAVEL = [-0.01456, -0.01456, -0.01456, -0.01456, 0.01, -0.0059,
          -0.00876, -0.00908, -0.01549, -0.01549, 0.01, 0.01]
FITS = {
    "thumb_forward_0": [0.0, -4.414, -2.493, 0.4605, 0.1868],
    "thumb_forward_1": [0.0, 2.265, 5.312, -1.507, -0.01794],
    "thumb_forward_2": [0.0, 13.68, -5.975, 4.724, -0.4232],
    "thumb_forward_3": [0.0, 6.451, 2.701, -1.323, -0.00933],
    "thumb_inverse_0": [0.0, -0.2217, -0.02095, -0.002611, -0.0001367],
    "thumb_inverse_1": [0.0, 0.291, -0.04408, 0.005031, -0.0002107],
    "thumb_inverse_2": [0.0, 0.07162, 0.003203, -0.0001568, -3.044e-06],
    "thumb_inverse_3": [0.0, 0.1504, -0.006036, 0.0004235, -2.954e-06],
    "single_forward": [0.0, -6.13, -4.317, 0.5921, 0.306],
    "single_inverse": [0.0, -0.1488, -0.008172, -0.0004489, -8.805e-06],
    "coupling_thumb": [0.0, 0.6359, -0.3539, -0.3066, -0.124],
    "coupling_first": [0.0, 1.063, 0.08942, 0.1845, -0.2169],
    "coupling_second": [0.0, 1.149, -0.2581, 0.6033, -0.3371],
    "coupling_last_a": [0.0, 0.7869, 0.3884, -0.4545, 0.1578],
    "coupling_last_b": [0.0, 0.899, 0.3138, -0.1728, -0.03666],
    "abad_mcp_forward_a": [
        0.0, 0.006081, -0.008884, -0.003837, 0.001554, -0.00396, -0.0009369,
        0.005173, -0.0004128, 0.001921
    ],
    "abad_mcp_forward_b": [
        0.0, -0.006083, -0.008884, -0.003836, -0.001553, -0.003959, 0.0009361,
        0.005173, 0.0004146, 0.001921
    ],
    "abad_mcp_inverse_a": [
        0.0, -81.62, 81.62, -852.2, -1.366, 853.7, -72960.0, 168600.0, -168600.0,
        73010.0
    ],
    "abad_mcp_inverse_b": [
        0.0, -54.01, -54.03, -2737.0, 2464.0, -2738.0, -137800.0, 69810.0,
        70000.0, -137800.0
    ],
    "pip_forward_first": [
        -0.003342057, -0.003554716, 0.000605222, -0.000922706, 0.000619337,
        -0.000479029, -5.98e-05, 5.92e-17, -1.52e-16, 4.18e-17, -1.36e-16, 9.22e-17, 3.75e-17,
        -0.002522849, 0.001113772, 0.000426514, 0.0, 6.57e-16, -0.000158924, 0.0013434
    ],
    "pip_inverse_first": [
        -239.38462, -18084.14901, 0.071080981, 11.66347542, 1735.505584,
        -0.074887112, 4.73, -1.56e-14, -1.49e-13, 4.91e-11, 1.38e-14, 2.15e-13, -3.92e-15,
        -0.463491891, -38.51910042, 0.0687204, 0.0, 1.51e-13, -0.023075136, -1244934.545
    ],
    "pip_forward_second": [
        -0.004504499, -0.002341199, 0.000697489, -0.000962223, 0.000512516,
        -0.000609666, 0.000108, 9.45e-18, 1.05e-16, -5.43e-17, 2.4e-17, -1.31e-17, -3.95e-17,
        -0.002541165, 0.001239013, 0.000411984, 0.0, -4.11e-16, -0.000147334, 0.000961855
    ],
    "pip_inverse_second": [
        -206.3849098, -10893.31803, 0.089069357, 16.01605453, 1535.395248,
        -0.08634878, 0.933, -8.18e-14, -1.75e-12, 1.36e-11, -9.64e-15, 1.5e-13, 4.65e-15,
        -0.429062665, -35.49983074, 0.059369174, 0.0, -2.53e-13, -0.021891079, -768921.6366
    ],
}
# The powers of x, y and z to which the coefficients of the fits in two and three variables belong.
CUBIC_POWERS = ["", "x", "y", "xx", "xy", "yy", "xxx", "xxy", "xyy", "yyy"]
PIP_POWERS = ["z", "zz", "y", "yz", "yzz", "yy", "yyz", "x", "xz", "xzz",
              "xy", "xyz", "xyy", "xx", "xxz", "xxy", "", "xxx", "yyy", "zzz"]
TESSEL_GESTURES = {
    1: [0.34, 0.0, -0.33, -0.375, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0],
    2: [0.5, -0.2, 0.0, -1.2, 0.0, 1.35, 1.53, 0.0, 1.36, 1.82, 1.55, 1.54],
    3: [0.3, -0.531, 0.0, -0.95, 0.0, 0.5, 0.65, 0.0, 0.0, 0.0, 0.0, 0.0],
}


def odd_mirror(coefficients):
    """The polynomial q with q(-x) = -p(x)."""
    return [-c if power % 2 == 0 else c for power, c in enumerate(coefficients)]


def polynomial(x, coefficients):
    total, power = 0.0, 1.0
    for coefficient in coefficients:
        total += coefficient * power
        power *= x
    return total


class Brisa:
    """One side of the hand with ten joints."""

    def __init__(self, mirrored):
        self.mirrored = mirrored
        self.joint = [self.flip(i, pair) for i, pair in enumerate(JOINT_LIMITS)]
        self.linear = [self.flip(i, pair) for i, pair in enumerate(LINEAR_LIMITS)]
        # Rising means that the actuator input rises with the joint position.
        rising = (0, 2, 6) if mirrored else (6,)
        self.at_min = [0 if i in rising else SCALE_TOP for i in JOINTS]
        self.at_max = [SCALE_TOP - at_min for at_min in self.at_min]
        self.thumb_forward = odd_mirror(THUMB_FORWARD) if mirrored else THUMB_FORWARD
        self.thumb_inverse = odd_mirror(THUMB_INVERSE) if mirrored else THUMB_INVERSE
        self.thumb_tip_b = [0.0, 1.846, 0.853, 0.28] if mirrored else THUMB_TIP_B

    def flip(self, joint, limits):
        low, high = limits
        return (-high, -low) if self.mirrored and joint in SIDED else limits

    def clamp(self, joints):
        return [min(max(value, low), high) for value, (low, high) in zip(joints, self.joint)]

    def fit(self, joints, thumb, flexion):
        fitted = list(joints)
        fitted[2] = polynomial(joints[2], thumb)
        for i in FLEXION:
            fitted[i] = polynomial(joints[i], flexion)
        return fitted

    def to_actuator(self, joints):
        positions = self.fit(self.clamp(joints), self.thumb_forward, FLEXION_FORWARD)
        inputs = []
        for i, (low, high) in enumerate(self.linear):
            span = self.at_max[i] - self.at_min[i]
            inputs.append(int(span * (positions[i] - low) / (high - low)) + self.at_min[i])
        return inputs

    def to_joint(self, inputs):
        positions = []
        for i, (low, high) in enumerate(self.linear):
            span = self.at_max[i] - self.at_min[i]
            positions.append((high - low) * (inputs[i] - self.at_min[i]) / span + low)
        return self.clamp(self.fit(positions, self.thumb_inverse, FLEXION_INVERSE))

    def all_joints(self, joints):
        result = joints[0:3]
        result += [polynomial(joints[2], THUMB_TIP_A), polynomial(joints[2], self.thumb_tip_b)]
        for sideways, flexion in ((3, 4), (None, 5), (6, 7), (8, 9)):
            if sideways is not None:
                result.append(joints[sideways])
            result += [joints[flexion], polynomial(joints[flexion], DISTAL)]
        return result

    def gesture(self, number):
        joints = GESTURES[number] if 0 <= number < len(GESTURES) else [0.0] * 10
        if self.mirrored:
            joints = [-value if i in SIDED else value for i, value in enumerate(joints)]
        return self.to_actuator(joints)

    def random_joints(self, beyond):
        """Positions up to `beyond` times the range away from the limits."""
        positions = []
        for low, high in self.joint:
            margin = beyond * (high - low)
            positions.append(round(random.uniform(low - margin, high + margin), 4))
        return positions


class Tessel:
    """One side of the hand with twelve joints. Fingers are (sideways, knuckle, middle)."""

    FINGERS = {"first": (4, 5, 6), "second": (7, 8, 9)}
    FINGER_MOTORS = {"first": (0, 1, 6), "second": (2, 3, 7)}
    # Joint, motor, and the names of the fits that lead there and back.
    SINGLES = [(0, 5, "thumb_forward_0", "thumb_inverse_0"),
               (1, 4, "thumb_forward_1", "thumb_inverse_1"),
               (2, 11, "thumb_forward_2", "thumb_inverse_2"),
               (3, 10, "thumb_forward_3", "thumb_inverse_3"),
               (10, 8, "single_forward", "single_inverse"),
               (11, 9, "single_forward", "single_inverse")]

    def __init__(self, mirrored):
        self.mirrored = mirrored
        self.negated_forward = (0, 2, 3, 4, 7) if mirrored else (1, 2, 3)
        self.negated_back = (2, 3, 4, 7) if mirrored else (1, 2, 3)

    def check(self, joints):
        """Within the limits, and each knuckle within what its sideways joint leaves it."""
        checked = [confine(value, limits) for value, limits in zip(joints, TESSEL_LIMITS)]
        for sideways, knuckle, _ in self.FINGERS.values():
            low = 0.6293692307692308 * abs(checked[sideways])
            high = 1.35 - 0.6818076923076924 * abs(checked[sideways])
            checked[knuckle] = confine(checked[knuckle], (low, high))
        return checked

    def to_length(self, joints):
        joints = [-value if i in self.negated_forward else value for i, value in enumerate(joints)]
        lengths = [0.0] * len(MOTORS)
        for joint, motor, forward, _ in self.SINGLES:
            lengths[motor] = 0.001 * polynomial(joints[joint], FITS[forward])
        for finger, (sideways, knuckle, middle) in self.FINGERS.items():
            x, y, z = joints[sideways], joints[knuckle], joints[middle]
            motor_a, motor_b, motor_pip = self.FINGER_MOTORS[finger]
            lengths[motor_a] = fit(FITS["abad_mcp_forward_a"], CUBIC_POWERS, x=x, y=y)
            lengths[motor_b] = fit(FITS["abad_mcp_forward_b"], CUBIC_POWERS, x=x, y=y)
            lengths[motor_pip] = fit(FITS["pip_forward_" + finger], PIP_POWERS, x=x, y=y, z=z)
        return [confine(length, (0.0, travel)) for length, travel in zip(lengths, TRAVEL)]

    def to_joint(self, lengths):
        joints = [0.0] * len(TESSEL_LIMITS)
        for joint, motor, _, inverse in self.SINGLES:
            joints[joint] = polynomial(1000.0 * lengths[motor], FITS[inverse])
        for finger, (sideways, knuckle, middle) in self.FINGERS.items():
            a, b, z = (lengths[motor] for motor in self.FINGER_MOTORS[finger])
            x = fit(FITS["abad_mcp_inverse_a"], CUBIC_POWERS, x=b, y=a)
            y = fit(FITS["abad_mcp_inverse_b"], CUBIC_POWERS, x=b, y=a)
            joints[sideways], joints[knuckle] = x, y
            joints[middle] = fit(FITS["pip_inverse_" + finger], PIP_POWERS, x=x, y=y, z=z)
        joints = [-value if i in self.negated_back else value for i, value in enumerate(joints)]
        return [confine(value, limits) for value, limits in zip(joints, TESSEL_LIMITS)]

    def gesture(self, number):
        joints = TESSEL_GESTURES.get(number, [0.0] * len(TESSEL_LIMITS))
        return lengths_to_inputs(self.to_length(self.check(joints)))


def confine(value, bounds):
    return min(max(value, min(bounds)), max(bounds))


def fit(coefficients, powers, **variables):
    total = 0.0
    for coefficient, factors in zip(coefficients, powers, strict=True):
        for factor in factors:
            coefficient *= variables[factor]
        total += coefficient
    return total


def travels():
    """The ends of each motor: its lesser and greater length, and the inputs there."""
    for travel in TRAVEL:
        yield (travel, 0.0, 0, INPUT_TOP) if travel < 0 else (0.0, travel, INPUT_TOP, 0)


def lengths_to_inputs(lengths):
    return [int((length - low) / (high - low) * (at_high - at_low) + at_low)
            for length, (low, high, at_low, at_high) in zip(lengths, travels())]


def inputs_to_lengths(inputs):
    return [(value - at_low) / (at_high - at_low) * (high - low) + low
            for value, (low, high, at_low, at_high) in zip(inputs, travels())]


def all_tessel_joints(a):
    last = [polynomial(a[11], FITS["coupling_last_a"]), polynomial(a[11], FITS["coupling_last_b"])]
    return [*a[0:4], polynomial(a[3], FITS["coupling_thumb"]),
            *a[4:7], polynomial(a[6], FITS["coupling_first"]),
            *a[7:10], polynomial(a[9], FITS["coupling_second"]),
            a[10], *last, a[11], *last]


def braced(field):
    if isinstance(field, list):
        return "{" + ", ".join(map(repr, field)) + "}"
    return repr(field).lower()


def row(*fields):
    print("    {" + ", ".join(map(braced, fields)) + "},")


def table(declaration, rows):
    print(f"\nconst {declaration}[] = {{")
    for fields in rows:
        row(*fields)
    print("};")


def print_brisa():
    hands = [Brisa(False), Brisa(True)]
    joints = [(hand, hand.random_joints(beyond))
              for hand in hands for beyond in [0.0] * 8 + [0.6] * 6]
    joints += [(hand, list(limits)) for hand in hands for limits in zip(*hand.joint)]
    inputs = [(hand, [random.randint(-margin, SCALE_TOP + margin) for _ in JOINTS])
              for hand in hands for margin in [0] * 5 + [3000] * 3]
    numbers = [-2**31, -1, *range(len(GESTURES) + 1), 2**31 - 1]

    table("ForwardRow kForwardRows", [(h.mirrored, j, h.to_actuator(j)) for h, j in joints])
    table("InverseRow kInverseRows", [(h.mirrored, v, h.to_joint(v)) for h, v in inputs])
    table("AllJointsRow kAllJointsRows", [(h.mirrored, j, h.all_joints(j)) for h, j in joints[::3]])
    table("GestureRow kGestureRows",
          [(h.mirrored, n, h.gesture(n)) for h in hands for n in numbers])


def print_tessel():
    def random_joints(beyond):
        return [round(random.uniform(low - beyond * (high - low), high + beyond * (high - low)), 4)
                for low, high in TESSEL_LIMITS]

    hands = [Tessel(False), Tessel(True)]
    forward, inverse = [], []
    for hand in hands:
        joints = [random_joints(beyond) for beyond in [0.0] * 5 + [0.4] * 3]
        joints += [list(limits) for limits in zip(*TESSEL_LIMITS)]
        for j in joints:
            checked = hand.check(j)
            lengths = hand.to_length(checked)
            forward.append((hand.mirrored, j, checked, lengths, lengths_to_inputs(lengths)))
        # Inputs of poses come back within the limits; those that are drawn often don't.
        inputs = [pose[-1] for pose in forward[-4:]]
        inputs += [[random.randint(0, INPUT_TOP) for _ in MOTORS] for _ in range(4)]
        inputs += [[0] * len(MOTORS), [INPUT_TOP] * len(MOTORS)]
        for v in inputs:
            lengths = inputs_to_lengths(v)
            back = hand.to_joint(lengths)
            inverse.append((hand.mirrored, back, all_tessel_joints(back), lengths, v))
    tables = {"joint_min": [low for low, _ in TESSEL_LIMITS],
              "joint_max": [high for _, high in TESSEL_LIMITS],
              "motor_length_min": [min(t, 0.0) for t in TRAVEL],
              "motor_length_max": [max(t, 0.0) for t in TRAVEL], **FITS}

    print("\nconst TableRow kTableRows[] = {")
    for name, numbers in tables.items():
        print(f"    {{&KorvaneTesselSolver::{name}, {braced(numbers)}}},")
    print("};")
    table("ConversionRow kForwardRows", forward)
    table("ConversionRow kInverseRows", inverse)
    table("GestureRow kGestureRows", [(h.mirrored, n, h.gesture(n))
                                      for h in hands for n in [-2**31, -1, *range(5), 2**31 - 1]])


def main():
    printers = {"brisa": print_brisa, "tessel": print_tessel}
    if len(sys.argv) != 2 or sys.argv[1] not in printers:
        sys.exit("usage: scripts/make_solver_table.py brisa|tessel")
    random.seed(7)
    printers[sys.argv[1]]()


if __name__ == "__main__":
    main()
