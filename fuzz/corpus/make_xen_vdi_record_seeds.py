#!/usr/bin/env python3
"""Makes the seeds of xen_vdi_record_fuzz: records of disk images as XML, sound ones and broken ones."""
import pathlib

DIRECTORY = pathlib.Path(__file__).parent / "xen_vdi_record_fuzz"

FIELDS = {
    "Uuid": "0c5c9a80-1d2e-4f00-9b7a-000000000001",
    "Name_label": "disk &amp; more",
    "Name_description": "",
    "Sr_guid": "sr",
    "Vbdguids": ["vbd-1", "vbd-2"],
    "Virtual_size": "1048576",
    "Physical_utilisation": "-1",
    "Type": "2",
    "Sharable": "true",
    "Read_only": "false",
    "Other_config": ["colour:::&gt;red"],
    "Storage_lock": "1",
    "Location": "&#x73;helf&#32;3",
    "Managed": "0",
    "Missing": "false",
    "Parentvdiguid": "parent",
    "Xenstore_data": [],
    "Sm_config": ["a:::&gt;b"],
    "Is_a_snapshot": "false",
    "Snapshot_of_guid": "origin",
    "Snapshotguids": [],
    "Snapshot_time": "20240229T12:00:00Z",
    "Tags": ["one", "two"],
}


def element(name, value):
    if isinstance(value, list):
        value = "".join(f"<Item>{item}</Item>" for item in value)
    return f"<{name}>{value}</{name}>"


def record(more="", **changes):
    fields = {**FIELDS, **changes}
    return "<XenVDIRecord>" + "".join(element(name, value) for name, value in fields.items()) + more + "</XenVDIRecord>"


SEEDS = {
    "empty": "",
    "nothing-told": "<XenVDIRecord/>",
    "element": record(),
    "document": '<?xml version="1.0" encoding="UTF-8" standalone="yes"?>\n' + record() + "\n",
    "indented": record().replace("><", ">\n  <"),
    "byte-order-mark": "\ufeff" + record(),
    "hexadecimal": record('<Other encoding="hex">00</Other>').replace("<Sr_guid>sr", '<Sr_guid encoding="hex">00fF'),
    "literal-text": record(Location="a<![CDATA[<b>&]]>c", Tags=["<![CDATA[]]>"]),
    "comments": "<!-- a -->" + record("<!-- b -->", Type="<!-- c -->2") + "<?d e?>",
    "elements-of-others": record("<Later a='1' b=\"&lt;\"><Item/>text<Deeper/></Later>"),
    "line-ends": record(Location="1\r\n2\r3&#13;\n"),
    "beyond-ascii": record(Name_label="\u00e4\u20ac\U0001f600"),
    "deep": record("<a>" * 62 + "</a>" * 62),
    "too-deep": record("<a>" * 70 + "</a>" * 70),
    "document-type": "<!DOCTYPE a [<!ENTITY b 'bbbb'>]>" + record(Location="&b;"),
    "another-message": "<Other>" + record() + "</Other>",
    "twice": record("<Uuid/>"),
    "bad-number": record(Virtual_size="9223372036854775808"),
    "bad-digits": record("<Tags/>").replace("<Uuid>", "<Uuid encoding='hex'>"),
    "cut": record()[:500],
}


def main():
    DIRECTORY.mkdir(exist_ok=True)
    for name, text in SEEDS.items():
        (DIRECTORY / name).write_bytes(text.encode("utf-8"))
    (DIRECTORY / "latin-1").write_bytes(record(Name_label="\u00e4").encode("latin-1"))


if __name__ == "__main__":
    main()
