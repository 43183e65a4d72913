"""Administration, debugging, kits on flash and the configuration across restarts, over the bus."""
import json
import os
import pathlib
import subprocess

import case
import world

APPS = {1: "Mail", 2: "Chat", 3: "Games"}
INVALID_KIT = "Kit Validation Failed!!!"


class Admin(case.SystemTest):
    def setUp(self):
        super().setUp()
        self.world.start("--report-interval", "0")

    def mirror(self):
        return [event["mirror"] for event in self.world.module.events("config") if "mirror" in event]

    def saved(self):
        return json.loads(world.CONFIG.read_text())["ApplicationVisbilityProfile"][0]

    def configure(self):
        self.world.install_kit(apps=APPS)
        self.world.call("CREATEavAppGroup", {"appGroup": {"talk": [{"appName": "Mail"}, {"appName": "Chat"}]}})
        self.world.call("SETavDpiAppList", {"appGroup": ["talk"]})
        self.world.call("SETavAppMonAppList", {"appList": [{"appName": "Games"}]})

    def test_the_state_is_saved_when_it_changes(self):
        for value, mirror in (("enable", [1]), ("on", [1]), ("disable", [1, 0]), ("off", [1, 0, 1])):
            before = world.CONFIG.stat().st_ino if world.CONFIG.exists() else None
            self.world.call("SETappMonAdminState", {"adminState": value})
            self.world.settle()
            self.assertEqual(self.mirror(), mirror, value)
            changed = not world.CONFIG.exists() or world.CONFIG.stat().st_ino != before
            self.assertEqual(changed, value != "on", "saved exactly when the state changes")
        self.assertEqual(self.saved()["appMonAdminState"], {"adminState": "enable"})
        self.world.call("SETappMonAdminState", {"adminState": 1})  # of another type: as good as absent
        self.world.call("SETappMonAdminState", {})
        self.assertEqual(self.mirror(), [1, 0, 1])

    def test_debug_settings(self):
        self.world.log_level("STATS")
        self.world.log_level("debug")
        self.world.log_level("NONE")
        self.world.call("SetavDebugSettings", {"logLevel": 5})
        self.assertIn("Packet Counter [0] : Flow4 Counter [0] : Flow6 Counter [0] : Stats Counter [0]\n",
                      self.world.dump("counter"), "other texts leave the level as it was")
        self.assertEqual(self.world.dump("no"), "")
        flow = self.world.dump("flow")
        self.assertEqual(flow.splitlines(), ["amFt4Queue ft4CommonIndex 0", "amFt6Queue ft6CommonIndex 0"])
        self.assertEqual(self.world.dump("yes").splitlines(), [
            "---- Enforcement Application List ------", "---- Monitoring Application List ------",
            "amFt4Queue ft4CommonIndex 0", "amFt6Queue ft6CommonIndex 0", "amMonFt6Queue amMonFlow6Counter 0",
            "Packet Counter [0] : Flow4 Counter [0] : Flow6 Counter [0] : Stats Counter [0]"])
        before = len(self.log())
        self.world.call("SetavDebugSettings", {"logLevel": "ERROR", "debugPrintDb": "counter"})
        self.assertIn("Packet Counter", self.log()[before:], "dumped before the level of the same request")
        self.assertEqual(self.world.dump("yes"), "")

    def test_configuration_survives_a_restart(self):
        self.configure()
        self.world.call("SETappMonActivateAppList", {"reloadSignFile": "x"})
        self.world.enable()
        self.world.log_level("INFO")
        before = [line for line in self.world.dump().splitlines() if "Packet" not in line]
        self.world.restart_daemon()
        self.world.log_level("INFO")
        self.assertEqual([line for line in self.world.dump().splitlines() if "Packet" not in line], before)
        self.assertEqual(self.mirror()[-1:], [1])
        self.assertEqual(list(self.saved()), ["appMonUpdateSignatureFile", "avAppGroup", "avAppMonAppList", "avDpiAppList",
                                              "appMonAdminState"])
        self.assertEqual(self.saved()["avDpiAppList"], {"appList": [], "appGroup": ["talk"]})
        self.assertEqual(world.CONFIG.stat().st_mode & 0o077, 0)

    def test_a_clear_is_forgotten_without_activation(self):
        self.configure()
        self.world.enable()  # a file of a disabled daemon applies nothing
        self.world.call("SETappMonActivateAppList", {})
        self.world.call("SETappMonClearConfig", {"clearConfig": "yes"})
        self.world.log_level("INFO")
        self.assertNotIn("Mail", self.world.dump())
        self.world.restart_daemon()
        self.world.log_level("INFO")
        self.assertIn("AppId 1 App-Name Mail Grp-Name talk", self.world.dump())

    def test_reload_event_with_and_without_a_file(self):
        self.configure()
        self.world.enable()
        self.world.call("SETappMonActivateAppList", {})
        self.world.module.command("generate flows=100000 packets=100000000 ports=10001,10003 rate=20000")
        for _ in range(3):
            before = self.mirror()
            self.assertEqual(self.world.ubus("send", "userconfig.reload", "{}").returncode, 0)
            world.wait_until(lambda: self.mirror()[len(before):] == [0, 1], "mirroring off and on")
        self.assertIn("md5sum same\n", self.log(), "the kit on flash is the one that runs")
        self.world.ubus("send", "userconfig.other", "{}")
        world.CONFIG.unlink()
        self.world.ubus("send", "userconfig.reload", "{}")
        world.wait_until(lambda: self.mirror()[-1:] == [0], "mirroring off")

    def test_a_hand_written_file(self):
        self.configure()
        self.world.daemon.stop()
        world.CONFIG.write_text(json.dumps({"APPLICATIONvisbilityprofile": [
            {"appMonAdminState": {"adminState": "enable"}, "reloadSignFile": "force",
             "avappgroup": {"g": [{"appName": "Mail"}, {"appName": "Nobody"}, 7, {}], "e": [], "x": 5},
             "avAppMonAppList": [], "avDpiAppList": {"appList": [{"appName": "Games"}, 3], "appGroup": [1, "g", "no"]}},
            {"appMonAdminState": {"adminState": "disable"}, "avDpiAppList": {"appList": [{"appName": "Chat"}]}}]}))
        self.world.start_daemon()
        self.world.log_level("INFO")
        dump = self.world.dump()
        self.assertIn("AppId 1 App-Name Mail Grp-Name g", dump)
        self.assertIn("AppId 3 App-Name Games\n", dump)
        self.assertNotIn("App-Name Chat", dump, "the second profile stops the load")
        self.assertEqual(self.mirror()[-1:], [1])

    def test_kits_that_are_refused(self):
        self.assert_fails(INVALID_KIT, "SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})
        self.assertIn("dpiValidateKit():", self.log())
        self.assertIn("app Signature kit not present in /flash\n", self.log())
        self.configure()
        self.world.enable()
        cases = (
            ("wrong level", {"level": 2}, "Kit not comaptible 2\n"),
            ("no level", {"without": "compatibility"}, "is not compitable with QEL \n"),
        )
        for name, options, line in cases:
            with self.subTest(name):
                world.make_kit(apps=APPS, **options)
                self.world.enable()
                self.assert_fails(INVALID_KIT, "SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})
                self.assertIn(line, self.log())
                self.assertEqual(self.mirror()[-1], 0, "mirroring stays off")
        for name, content in (("no archive", b"nothing of the kind"), ("empty", b""),
                              ("cut", (world.make_kit(apps=APPS), world.KIT.read_bytes()[:-200])[1])):
            with self.subTest(name):
                world.KIT.write_bytes(content)
                self.assert_fails(INVALID_KIT, "SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})
                self.assertIn("app Signature kit from /flash is malformed\n", self.log())
        self.world.log_level("INFO")
        self.assertIn("App-Name Mail Grp-Name talk", self.world.dump(), "the kit before stays in place")
        self.world.call("SETappMonActivateAppList", {})
        self.assertNotIn("appMonUpdateSignatureFile", self.saved())

    def test_kits_that_install_only_partly(self):
        self.configure()
        index = pathlib.Path("/tmp/index.csv")
        index.write_text("any header\n2,Chat,a,b,c,d,e\n70000,,Wrapped,a,b,c,d\n")
        world.make_kit(index=index, without="lib")
        self.world.call("SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})
        self.world.settle()
        self.assertIn("capture file not found\n", self.log())
        self.world.log_level("INFO")
        self.assertNotIn("Mail", self.world.dump(), "groups and lists go with the old kit")
        self.world.call("SETavDpiAppList", {"appList": [{"appName": "Wrapped"}, {"appName": "Chat"}]})
        self.assertIn("AppId 4464 App-Name Wrapped\n", self.world.dump())
        self.assert_fails("Adding App to Enforcement List Failed", "CREATEavDpiAppList",
                          {"appList": [{"appName": "Mail"}]})
        world.make_kit(apps=APPS, without="index")
        self.world.call("SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})
        self.world.settle()
        self.assertIn("Unable to Create app-pool for new kit\n", self.log())
        self.assertIn("AppId 4464 App-Name Wrapped\n", self.world.dump())

    def test_the_same_kit_twice_is_installed_once(self):
        self.configure()
        self.assertEqual(self.mirror(), [], "what was off stays off")
        self.world.enable()
        self.world.call("SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})
        self.world.settle()
        world.wait_until(lambda: self.mirror() == [1, 0, 1], "the module to have heard of all three states")
        self.assertIn("md5sum same\n", self.log())
        self.assertFalse(os.path.exists("/var/flash"))
        self.world.log_level("INFO")
        self.assertIn("App-Name Mail Grp-Name talk", self.world.dump())
        self.world.call("SETappMonUpdateSignatureFile", {"reloadSignFile": "no"})
        self.world.call("SETappMonActivateAppList", {})
        self.assertEqual(self.saved()["appMonUpdateSignatureFile"], {"reloadSignFile": "force"})

class Passwords(case.SystemTest):
    def test_credentials_are_in_no_log(self):
        self.world.start()
        secret = "Tr0ub4dor-and-3"
        (world.FLASH / "appmon_enforcement_flow_records.csv").write_text("x\n")
        request = {"username": "u", "password": secret, "filePath": "ftp://127.0.0.1:1/x", "fileCheckSum": "0"}
        self.world.call("CREATEavSignatureProfile", request)
        self.world.settle()
        self.world.call("GETavDpiStats", request)
        world.wait_until(lambda: "STATS CSV Upload FAILURE" in self.log(), "the failure")
        self.assertIn("Failed to download the kit\n", self.log())
        found = subprocess.run(["grep", "-rlF", secret, "/var", "/flash", "/tmp/out"], capture_output=True, text=True,
                               check=False).stdout
        self.assertEqual(found, "")
        self.assertIn('"password": "' + "*" * len(secret) + '"', world.text_of(world.REQUEST_LOG))
        for path in (world.LOG, world.REQUEST_LOG):
            self.assertEqual(path.stat().st_mode & 0o077, 0, f"{path} is not for others")
