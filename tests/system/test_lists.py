"""Groups and lists over the bus: order of members, partial effects, failure texts, malformed values."""
import json

import case
import world

APPS = {1: "alpha", 2: "beta", 3: "gamma", 4: "N" * 32, 5: "epsilon"}
NO_GROUP = "Creation of App-Grp Failed"
LISTS = {  # prefix of the methods' object: dump header, text for apps, text for groups
    "avAppMonAppList": ("Monitoring", "Adding App to Monitor List Failed", "Adding grp to Monitor List Failed"),
    "avDpiAppList": ("Enforcement", "Adding App to Enforcement List Failed",
                     "Adding grp to Enforcement List Failed"),
}


def apps(*names):
    return [{"appName": name, "appId": "9"} for name in names]


class Lists(case.SystemTest):
    @classmethod
    def setUpClass(cls):
        cls.shared = world.World()
        cls.shared.__enter__()
        cls.shared.start()
        cls.shared.log_level("INFO")
        cls.shared.install_kit(apps=APPS)

    @classmethod
    def tearDownClass(cls):
        status = cls.shared.daemon.stop()
        cls.shared.__exit__()
        assert status == 0, status

    def setUp(self):
        self.world = self.shared
        self.world.call("SETappMonClearConfig", {"clearConfig": "yes"})

    # What the debug dump says the lists and groups hold.

    def groups(self):
        lines = [line.split() for line in self.world.dump().splitlines() if line.startswith("Grp-Name ")]
        found = {}
        for words in lines:
            found.setdefault(words[1], []).append(words[3])
        return found

    def listed(self, title):
        """{application: group or None} of one list."""
        found, inside = {}, False
        for line in self.world.dump().splitlines():
            if line.startswith("----"):
                inside = line == f"---- {title} Application List ------"
            elif inside and line.startswith("AppId "):
                words = line.split()
                found[words[3]] = words[5] if len(words) > 4 else None
        return found

    def message(self, method, *members):
        """Sends members in this order, as they are; of several with one name the bus tool keeps the last."""
        text = "{" + ",".join(f"{json.dumps(name)}:{json.dumps(value)}" for name, value in members) + "}"
        done = self.world.ubus("call", "dpi", method, text)
        self.assertEqual(done.returncode, 0, done.stderr)
        return json.loads(done.stdout)

    def assert_ok(self, reply):
        self.assertEqual(reply, {"success": True, "result": {}, "error": {"errorCode": 0, "errorMessage": ""}})

    def assert_failed(self, reply, text):
        self.assertEqual(reply, {"success": False, "result": {}, "error": {"errorCode": -1, "errorMessage": text}})

    def test_the_four_list_methods(self):
        for subject, (title, app_text, group_text) in LISTS.items():
            with self.subTest(subject):
                create, replace = "CREATE" + subject, "SET" + subject
                self.world.call("CREATEavAppGroup", {"appGroup": {"g": apps("beta", "gamma")}})

                self.assert_ok(self.message(create, ("appList", apps("alpha")), ("appGroup", ["", "g"])))
                self.assertEqual(self.listed(title), {"alpha": None, "beta": "g", "gamma": "g"})
                self.assert_ok(self.message(create))
                self.assertEqual(len(self.listed(title)), 3, "a create without arguments changes nothing")
                self.assert_ok(self.message(create, ("appList", apps("N" * 32))))
                self.assertEqual(len(self.listed(title)), 4, "a create adds")

                self.assert_failed(self.message(replace, ("appList", apps("epsilon", "nobody", "alpha"))), app_text)
                self.assertEqual(self.listed(title), {"epsilon": None}, "what came before the failure stays")
                self.assert_failed(self.message(create, ("appGroup", ["g", "none"])), group_text)
                self.assertIn("beta", self.listed(title))
                self.assert_failed(self.message(create, ("other", 1), ("appList", apps("alpha"))),
                                   "Invalid configuration received")
                self.assertNotIn("alpha", self.listed(title), "members after an unknown one are not applied")
                self.assert_failed(self.message(create, ("appList", apps("alpha")), ("other", 1)),
                                   "Invalid configuration received")
                self.assertIn("alpha", self.listed(title), "members before it are")

                for value in (["alpha"], [1], [{"appNames": "alpha"}], "alpha", 7, True, None):
                    self.assert_failed(self.message(create, ("appList", value)), app_text)
                self.assert_ok(self.message(create, ("appGroup", [1, {"g": "g"}, None])))
                for value in ("g", 7):
                    self.assert_failed(self.message(create, ("appGroup", value)), group_text)

                self.assert_ok(self.message(replace))
                self.assertEqual(self.listed(title), {}, "a set without arguments empties the list")
                self.world.call("SETappMonClearConfig", {"clearConfig": "yes"})

    def test_lists_keep_apart_and_remember_the_last_group(self):
        self.world.call("CREATEavAppGroup", {"appGroup": {"g": apps("alpha", "beta")}})
        self.world.call("SETavDpiAppList", {"appGroup": ["g"]})
        self.world.call("SETavAppMonAppList", {"appList": apps("alpha")})
        self.assertEqual(self.listed("Enforcement"), {"alpha": "g", "beta": "g"})
        self.assertEqual(self.listed("Monitoring"), {"alpha": "g"})
        self.world.call("SETavDpiAppList", {})
        self.assertEqual(self.listed("Monitoring"), {"alpha": "g"}, "still named while on the other list")
        self.world.call("SETavAppMonAppList", {})
        self.world.call("SETavAppMonAppList", {"appList": apps("alpha")})
        self.assertEqual(self.listed("Monitoring"), {"alpha": None})

    def test_groups_are_made_changed_and_deleted(self):
        self.assert_failed(self.message("CREATEavAppGroup"), NO_GROUP)
        self.assert_failed(self.message("CREATEavAppGroup", ("ids", ["g"])), NO_GROUP)
        self.assert_ok(self.message("CREATEavAppGroup", ("ids", ["x"]), ("appGroup", {
            "G" * 41: apps("alpha"), "g": apps("gamma", "alpha"), "empty": []})))
        self.assertEqual(self.groups(), {"G" * 40: ["alpha"], "g": ["alpha", "gamma"]})
        self.assert_failed(self.message("CREATEavAppGroup", ("appGroup", {"g": apps("alpha")})), NO_GROUP)

        self.assert_failed(self.message("CREATEavAppGroup", ("appGroup", {
            "h": [{"bad": 1}] + apps("beta"), "later": apps("beta")})), NO_GROUP)
        self.assertEqual(self.groups().get("h"), ["beta"], "the group's remaining entries are still added")
        self.assertNotIn("later", self.groups(), "later groups are not")

        self.assert_ok(self.message("SETavAppGroup", ("ids", ["g", "none"]), ("appGroup", {"g": apps("beta")})))
        self.assertEqual(self.groups()["g"], ["beta"], "deleted, then made anew")
        self.assert_ok(self.message("SETavAppGroup", ("appGroup", {"i": apps("beta")}), ("ids", ["i", "g"])))
        self.assertNotIn("i", self.groups(), "made, then deleted")
        self.assert_ok(self.message("SETavAppGroup"))
        self.assert_ok(self.message("SETavAppGroup", ("ids", ["none"])))
        self.assert_failed(self.message("SETavAppGroup", ("odd", 1), ("appGroup", {"j": apps("beta")})), NO_GROUP)
        self.assertIn("j", self.groups(), "members after a failed one are still processed")

        self.world.call("CREATEavAppGroup", {"appGroup": {"k": apps("beta")}})
        self.assert_failed(self.message("DELETEavAppGroup", ("ids", ["j", "none", "k"])),
                           "Deletion of App-Grp Failed")
        self.assertEqual({"j", "k"} & set(self.groups()), {"k"})
        self.assert_ok(self.message("DELETEavAppGroup", ("appGroup", {"k": []}), ("ids", "k"), ("odd", 1)))
        self.assertIn("k", self.groups(), "all but an array of ids is ignored")

    def test_group_values_that_are_no_groups(self):
        for method in ("CREATEavAppGroup", "SETavAppGroup"):
            for value in ("g", 5, {"g": "alpha"}, {"g": {"appName": "alpha"}}, {"g": ["alpha"]}, {"g": [5]}, True):
                with self.subTest(method=method, value=value):
                    self.assert_failed(self.message(method, ("appGroup", value)), NO_GROUP)
            self.assert_failed(self.message(method, ("ids", "g")), NO_GROUP)

    def test_deleting_a_group_takes_its_members_off_both_lists(self):
        self.world.call("CREATEavAppGroup", {"appGroup": {"g": apps("alpha", "beta")}})
        self.world.call("SETavDpiAppList", {"appGroup": ["g"], "appList": apps("gamma")})
        self.world.call("SETavAppMonAppList", {"appList": apps("alpha", "gamma")})
        self.world.call("DELETEavAppGroup", {"ids": ["g"]})
        self.assertEqual(self.listed("Enforcement"), {"gamma": None})
        self.assertEqual(self.listed("Monitoring"), {"gamma": None})

    def test_nothing_of_this_writes_the_configuration(self):
        self.world.call("CREATEavAppGroup", {"appGroup": {"g": apps("alpha")}})
        self.world.call("SETavDpiAppList", {"appGroup": ["g"]})
        self.assertFalse(world.CONFIG.exists())

    def test_requests_and_replies_are_in_the_request_log(self):
        self.world.call("SETappMonClearConfig", {"clearConfig": "no"})
        # A reply's entry comes after the reply.
        world.wait_until(lambda: "}\n}\n" in world.text_of(world.REQUEST_LOG).partition('"no"')[2], "the reply's entry")
        self.assertRegex(world.text_of(world.REQUEST_LOG),
                         r'(?m)^\S+ \S+ : ubus msg :\n\{\n\t"clearConfig": "no"\n\}\n'
                         r'\S+ \S+ : ubus msg :\n\{\n\t"success": true,\n\t"result": \{\n\t\t\n\t\},\n'
                         r'\t"error": \{\n\t\t"errorCode": 0,\n\t\t"errorMessage": ""\n\t\}\n\}\n\Z')
