"""The hashes of types that korvane-ros2 tells are those of its own descriptions of them, by the rule of ROS 2's type
versioning. That the rule is right shows in JointState, whose hash is known from ROS 2.
"""

import hashlib
import json
import pathlib
import re

ROS2 = pathlib.Path(__file__).resolve().parents[2] / "ros2"
NUMBERS = {"octet": 3, "long": 6, "unsigned long": 7, "double": 11, "string": 17}
BYTE = 16  # what DDS knows as an octet may be a byte of ROS 2
SEQUENCE = 144
JOINT_STATE = "RIHS01_a13ee3a330e346c9d87b5aa18d24e11690752bd33a0350f11c5882bc9179260e"


def whole(module, kind):
    """A type of the same module with its module."""
    return re.sub(r"(?<![\w:])([A-Z]\w*_)", rf"{module}::msg::dds_::\1", kind)


def types_of(idl):
    """The members of each type by its name in ROS 2, as name and type."""
    types = {}
    for module, body in re.findall(r"module (\w+) \{ module msg \{ module dds_ \{(.*?)\n\}; \}; \};", idl, re.S):
        for name, members in re.findall(r"struct (\w+)_ \{(.*?)\};", body, re.S):
            types[f"{module}/msg/{name}"] = [
                (member, whole(module, kind))
                for kind, member in re.findall(r"^\s*(\S.*?) (\w+)(?:\[\d+\])?;$", members, re.M)]
    return types


def field(name, kind):
    is_sequence = kind.startswith("sequence<")
    base = kind[len("sequence<"):-1] if is_sequence else kind
    nested = base.replace("::msg::dds_::", "/msg/").rstrip("_") if "::" in base else ""
    number = 1 if nested else BYTE if name == "level" else NUMBERS[base]
    return {"name": name, "type": {"type_id": number + (SEQUENCE if is_sequence else 0), "capacity": 0,
                                   "string_capacity": 0, "nested_type_name": nested}}


def description(types, name):
    return {"type_name": name, "fields": [field(*member) for member in types[name]]}


def nested_in(types, name):
    found = set()
    for one in description(types, name)["fields"]:
        nested = one["type"]["nested_type_name"]
        if nested:
            found |= {nested} | nested_in(types, nested)
    return found


def hash_of(types, name):
    whole = {"type_description": description(types, name),
             "referenced_type_descriptions": [description(types, one) for one in sorted(nested_in(types, name))]}
    return "RIHS01_" + hashlib.sha256(json.dumps(whole).encode()).hexdigest()


def test_hashes_are_those_of_the_types():
    types = types_of((ROS2 / "ros2.idl").read_text())
    told = re.findall(r"&(\w+?)_msg_dds__(\w+)__desc,\s*\"(RIHS01_\w+)\"", (ROS2 / "messages.cpp").read_text())
    assert len(told) == 4 and JOINT_STATE in {row[2] for row in told}
    for module, name, told_hash in told:
        assert told_hash == hash_of(types, f"{module}/msg/{name}"), name
