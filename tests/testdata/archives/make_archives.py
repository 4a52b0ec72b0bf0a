#!/usr/bin/env python3
"""Writes sample keyed archives laid out the way a foreign keyed archiver writes them: mutable
collection classes, class dictionaries shared by every object of a class, strings uniqued, nested
dictionaries, arrays, dates, data and UUIDs, and records of our own and of unknown classes.

Run from anywhere; the .plist files are written next to this script and committed."""

import os
import plistlib
import uuid
from plistlib import UID

HERE = os.path.dirname(os.path.abspath(__file__))
START = 694224000.5  # 2023-01-01 00:00:00.5 UTC, in seconds since 2001-01-01
UUID_TEXT = "6E1B2C3D-4A5B-4C6D-8E7F-90A1B2C3D4E5"


class Archive:
    def __init__(self):
        self.objects = ["$null"]
        self.classes = {}
        self.strings = {}

    def add(self, obj):
        self.objects.append(obj)
        return UID(len(self.objects) - 1)

    def reserve(self):
        return self.add(None)

    def cls(self, *chain):
        if chain[0] not in self.classes:
            self.classes[chain[0]] = self.add({"$classname": chain[0], "$classes": list(chain)})
        return self.classes[chain[0]]

    def string(self, text):
        # Keyed archivers write each distinct string once.
        if text not in self.strings:
            self.strings[text] = self.add(text)
        return self.strings[text]

    def mutable_string(self, text):
        return self.add({"NS.string": text,
                         "$class": self.cls("NSMutableString", "NSString", "NSObject")})

    def date(self, seconds):
        return self.add({"NS.time": seconds, "$class": self.cls("NSDate", "NSObject")})

    def uuid(self, text):
        return self.add({"NS.uuidbytes": uuid.UUID(text).bytes,
                         "$class": self.cls("NSUUID", "NSObject")})

    def mutable_data(self, raw):
        return self.add({"NS.data": raw,
                         "$class": self.cls("NSMutableData", "NSData", "NSObject")})

    def array(self, refs, mutable=True):
        chain = ("NSMutableArray", "NSArray", "NSObject") if mutable else ("NSArray", "NSObject")
        return self.add({"NS.objects": list(refs), "$class": self.cls(*chain)})

    def dictionary(self, entries, mutable=True, slot=None):
        chain = (("NSMutableDictionary", "NSDictionary", "NSObject") if mutable
                 else ("NSDictionary", "NSObject"))
        body = {"NS.keys": [self.string(k) for k, _ in entries],
                "NS.objects": [v for _, v in entries],
                "$class": self.cls(*chain)}
        if slot is None:
            return self.add(body)
        self.objects[slot.data] = body
        return slot

    def layout(self, root):
        return {"$version": 100000, "$archiver": "NSKeyedArchiver", "$top": {"root": root},
                "$objects": self.objects}


def write(name, plist, fmt=plistlib.FMT_BINARY):
    with open(os.path.join(HERE, name), "wb") as f:
        plistlib.dump(plist, f, fmt=fmt, sort_keys=False)


def foreign_dictionary():
    a = Archive()
    root = a.reserve()  # the root comes first, as archivers number objects depth-first
    tags = a.array([a.string("alpha"), a.string("beta"), a.mutable_string("gamma")])
    nested = a.dictionary([("Inner", a.array([a.add(1), a.add(2)], mutable=False)),
                           ("Label", a.string("alpha"))], mutable=False)
    a.dictionary([
        ("Name", a.string("Ping")),
        ("Count", a.add(42)),
        ("Negative", a.add(-7)),
        ("Huge", a.add(2**64 - 1)),
        ("Ratio", a.add(0.25)),
        ("Enabled", a.add(True)),
        ("Start", a.date(START)),
        ("Payload", a.add(b"\x00\x01\x02\xff")),
        ("Blob", a.mutable_data(b"blob")),
        ("Identifier", a.uuid(UUID_TEXT)),
        ("Tags", tags),
        ("Nested", nested),
        ("Title", a.mutable_string("Wi-Fi \u00e9t\u00e9 \u2603")),
    ], slot=root)
    return a.layout(root)


def foreign_record():
    a = Archive()
    root = a.reserve()
    record_class = a.cls("VLSampleRecord", "NSObject")
    record = a.add({
        "$class": record_class,
        "Name": a.string("Throughput"),
        "Count": 12,
        "Ratio": 0.75,
        "Flag": True,
        "Started": a.date(START),
        "Options": a.dictionary([("Retries", a.add(3)), ("Hosts", a.array([a.string("h1")]))]),
    })
    a.objects[root.data] = {"NS.objects": [record, record],
                            "$class": a.cls("NSMutableArray", "NSArray", "NSObject")}
    return a.layout(root)


def foreign_refused():
    a = Archive()
    root = a.reserve()
    thing = a.add({"$class": a.cls("WLRemoteCommand", "WLCommand", "NSObject"),
                   "Command": a.string("rm -rf /")})
    a.dictionary([("Name", a.string("Ping")), ("Payload", thing)], slot=root)
    return a.layout(root)


def foreign_disguised(*chain):
    """An unknown class that claims an allowed class as its superclass, with that class's fields."""
    a = Archive()
    root = a.reserve()
    thing = a.add({"$class": a.cls("WLRemoteCommand", *chain),
                   "NS.keys": [a.string("Command")], "NS.objects": [a.string("rm -rf /")],
                   "Name": a.string("Throughput"), "Count": 1})
    a.dictionary([("Name", a.string("Ping")), ("Payload", thing)], slot=root)
    return a.layout(root)


def to_xml_uids(value):
    """XML property lists spell a UID as the dictionary {"CF$UID": n}."""
    if isinstance(value, UID):
        return {"CF$UID": value.data}
    if isinstance(value, dict):
        return {k: to_xml_uids(v) for k, v in value.items()}
    if isinstance(value, list):
        return [to_xml_uids(v) for v in value]
    return value


def main():
    write("foreign_dictionary.plist", foreign_dictionary())
    xml = foreign_dictionary()
    write("foreign_dictionary_xml.plist", to_xml_uids(xml), plistlib.FMT_XML)
    write("foreign_record.plist", foreign_record())
    write("foreign_refused.plist", foreign_refused())
    write("foreign_disguised_dictionary.plist",
          foreign_disguised("NSMutableDictionary", "NSDictionary", "NSObject"))
    write("foreign_disguised_record.plist", foreign_disguised("VLSampleRecord", "NSObject"))


if __name__ == "__main__":
    main()
