"""The page `replay html` writes, read by a real XML parser: well-formed,
with the SVG timeline and the desync marked. Arguments: the replay binary,
the sample writer, a scratch directory."""
import subprocess
import sys
import xml.etree.ElementTree as ET

replay, sample, scratch = sys.argv[1:4]
recording = scratch + "/replay_sample.rec"
subprocess.run([sample, recording], check=True)
page = subprocess.run([replay, "html", recording], check=True, capture_output=True).stdout
root = ET.fromstring(page)
xhtml, svg = "{http://www.w3.org/1999/xhtml}", "{http://www.w3.org/2000/svg}"
assert root.tag == xhtml + "html", root.tag
svgs = root.findall(".//" + svg + "svg")
assert len(svgs) == 1, len(svgs)
assert not root.findall(".//" + xhtml + "script")
classes = [e.get("class") for e in svgs[0].iter()]
for wanted in ("completions", "delay", "desync", "left"):
    assert wanted in classes, wanted
labels = [e.text for e in svgs[0].iter(svg + "text") if e.get("class") == "desync"]
assert labels == ["desync at step 70"], labels
print("html parses: 1 passed")
