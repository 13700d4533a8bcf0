"""The Korvane robotic hands: open one by its address, move it, and read it as arrays.

    import korvane

    with korvane.open("can0:tessel:2") as hand:
        print(hand.positions())

`korvane.simulated()` gives a hand without any hardware. What fails raises a `korvane.KorvaneError`; the
library's lines go to the logger "korvane".
"""

from . import service
from ._korvane import version as __version__
from .errors import BadArgument, BadReply, KorvaneError, LinkLost, NoReply, NotSupported, Refused, SendFailed
from .hand import Brisa, Hand, Lumen, Quill, Statistics, Target, Tessel, Vanta
from .models import FINGERS, MODELS, Address, ControlMode, Info, Joint, Model, MotorErrors, UpdateStatus
from .opening import FoundHand, FoundHands, find, open
from .recording import Recorder, Recording, load, record
from .simulation import SimulatedBrisa, Simulator, simulated
from .streaming import VALUES, Sample, Stream

__all__ = [
    "Address", "BadArgument", "BadReply", "Brisa", "ControlMode", "FINGERS", "FoundHand", "FoundHands", "Hand",
    "Info", "Joint", "KorvaneError", "LinkLost", "Lumen", "MODELS", "Model", "MotorErrors", "NoReply",
    "NotSupported", "Quill", "Recorder", "Recording", "Refused", "Sample", "SendFailed", "SimulatedBrisa", "Simulator",
    "Statistics", "Stream", "Target", "Tessel", "UpdateStatus", "VALUES", "Vanta", "__version__", "find", "load",
    "open", "record", "service", "simulated",
]
