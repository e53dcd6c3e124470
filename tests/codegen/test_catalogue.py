"""The catalogue is a contract with other services: nothing in it changes by accident.

Per interface: the signatures of the properties one after the other, the names of those that can be
written, the methods as name(in)out and the signals as name(out).
"""

import unittest

from support import SOURCE

from bmcbus_codegen.builder import build, choose
from bmcbus_codegen.parser import parse

NETWORK_INTERFACE = "ssssuuussssuussuuuuauua(ss)a(ssu)a(suuuu)a(su)a(su)"
POWER = "yayaqaqaqaqauauayyayaqaqaqaqauauaydddddddququqqyayadadadadayayayaqayayayyddayyy"

CATALOGUE = {
    "com.tamm.bmc.Cpu.cpu": (
        "",
        "",
        "setMemPL1(u)y setCpuPL1(u)y setCpuPL2(u)y setSysPL1(u)y setSysPL2(u)y "
        "readRASCPCIeCfg(a(yyuuu))u writeRASCPCIeCfg(a(yyuuu))y readRTC()(ty)",
        "PowerThermalCpuTelemetry(ayayauayauayauayauayauayauayauayauayauayauayauayau)",
    ),
    "com.tamm.bmc.Memory.Dimm": (
        "",
        "",
        "getDbusStatus()i DimmPowerCmdHandler()iddddd MemoryCmdHandler(ay)i",
        "DIMMPowerTelemetry(ddddd)",
    ),
    "com.tamm.bmc.Thermal.FanReporting": (
        "ya{s(yyyb)}",
        "",
        "updateFanPWMData(sy)i",
        "notifyFanReportingData(ya{s(yyyb)})",
    ),
    "com.tamm.bmc.Thermal.SystemInformation": (
        "snn",
        "ExhaustTemperature SystemAirflow",
        "GetSystemThermalInformation()qq",
        "",
    ),
    "com.tamm.bmc.Thermal.TeleMetrics": (
        "",
        "",
        "",
        "TeleMetricsSignal(tdbbdbbdbbdbbibbibbibbibbdbbdbbdbb)",
    ),
    "com.tamm.bmc.cpumetrics.CpuTelemetryPkg": (
        "",
        "",
        "GetCpuTelemetryData(y)" + 30 * "u",
        "CpuTelemetryPkg1Change(ay" + 30 * "au" + ") SecondSignal(y)",
    ),
    "com.tamm.bmc.debug.dataorigin": (
        "ss",
        "debugproperty",
        "debugmethod(s)s",
        "debugsignal(s)",
    ),
    "com.tamm.bmc.power.PowerReporting": (
        POWER + "ddddq",
        "",
        "",
        f"NotifyPwrReportingData({POWER}adadadadadadayasauadadadadadadaddddd)",
    ),
    "com.tamm.ovrik.wharfd.OSLogicalNetworkInterface": (NETWORK_INTERFACE, "*", "", ""),
    "com.tamm.ovrik.wharfd.OSLogicalNetworkInterfaces": (f"a({NETWORK_INTERFACE})", "*", "", ""),
}
USE_DATACACHE = {"com.tamm.bmc.Thermal.SystemInformation", "com.tamm.bmc.debug.dataorigin"}


def read(file):
    root, notes = parse(file.read_bytes())
    model, more = build(choose(root, None))
    return model, notes + more


def signatures(items):
    return "".join(item.signature for item in items)


def summary(model):
    writable = " ".join(prop.name for prop in model.writable)
    return (
        signatures(model.properties),
        "*" if model.properties and model.writable == model.properties else writable,
        " ".join(f"{m.name}({signatures(m.ins)}){signatures(m.outs)}" for m in model.methods),
        " ".join(f"{s.name}({s.signature})" for s in model.signals),
    )


class Catalogue(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        files = sorted((SOURCE / "com").rglob("*.xml"))
        cls.models = {file: read(file) for file in files}

    def test_members(self):
        found = {model.name: summary(model) for model, _ in self.models.values()}
        self.assertEqual(found, CATALOGUE)

    def test_every_file_is_where_its_interface_says(self):
        for file, (model, notes) in self.models.items():
            expected = "/".join(model.parts) + f"/{model.name}.xml"
            self.assertEqual(str(file.relative_to(SOURCE)), expected)
            self.assertEqual(notes, [])

    def test_datacache(self):
        marked = {model.name for model, _ in self.models.values() if model.datacache}
        self.assertEqual(marked, USE_DATACACHE)

    def test_signal_repeats_the_power_properties(self):
        """Services fill both from one table, so their names go together."""
        power = self.named("com.tamm.bmc.power.PowerReporting")
        args = [arg.name for arg in power.signals[0].args]
        names = [prop.name for prop in power.properties]
        self.assertEqual(args[:50] + args[66:], names[:54])

    def named(self, name):
        return next(model for model, _ in self.models.values() if model.name == name)


if __name__ == "__main__":
    unittest.main()
