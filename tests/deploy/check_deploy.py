#!/usr/bin/env python3
"""The deployment files read as Agones, Docker, Prometheus and Grafana would
need them, with no cluster: the manifests parse as YAML with the fields
Agones requires and agree with each other, the image runs the packaged
server as a user, and every metric that the alert rules and the dashboard
name is one that the server exports (read off a running server).

Usage: check_deploy.py SOURCE_DIR SERVER_BINARY"""

import json
import os
import re
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request

import yaml

failures = []


def check(condition, what):
    if not condition:
        failures.append(what)
    return condition


def load_yaml(path):
    with open(path) as f:
        docs = [d for d in yaml.safe_load_all(f) if d is not None]
    check(len(docs) == 1, f"{path}: one document")
    return docs[0]


def dig(doc, *keys):
    for k in keys:
        if not isinstance(doc, dict) or k not in doc:
            return None
        doc = doc[k]
    return doc


def exported_metrics(binary):
    """The metric names a running server serves, a histogram's series too."""
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]
    with tempfile.TemporaryDirectory() as root:
        os.makedirs(os.path.join(root, "server_data"))
        os.makedirs(os.path.join(root, "settings"))
        with open(os.path.join(root, "settings", "server.config"), "w") as f:
            f.write("0\n\n0\n")
        server = subprocess.Popen([os.path.abspath(binary), "--metrics", f"127.0.0.1:{port}"], cwd=root,
                                  stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            text = None
            for _ in range(100):
                try:
                    text = urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=5).read().decode()
                    break
                except OSError:
                    time.sleep(0.1)
        finally:
            server.terminate()
            server.wait(timeout=20)
    names = set()
    for line in (text or "").splitlines():
        m = re.match(r"# TYPE (\S+) (\S+)", line)
        if m:
            names.add(m.group(1))
            if m.group(2) == "histogram":
                names.update(m.group(1) + s for s in ("_bucket", "_sum", "_count"))
    check("lockstep_peers_connected" in names, "the server's metrics were read")
    return names


METRIC = re.compile(r"\b((?:lockstep|process)_[a-z0-9_]+|up)\b(?!\s*\()")


def check_expression(where, expr, exported):
    named = set(METRIC.findall(expr))
    check(named, f"{where}: names a metric: {expr}")
    for name in named:
        check(name == "up" or name in exported, f"{where}: {name} is not exported by the server")


def main():
    source, binary = sys.argv[1], sys.argv[2]
    deploy = os.path.join(source, "deploy")
    exported = exported_metrics(binary)

    # The Fleet: what Agones requires of it, and what the server needs.
    fleet = load_yaml(os.path.join(deploy, "agones", "fleet.yaml"))
    check(fleet.get("apiVersion") == "agones.dev/v1" and fleet.get("kind") == "Fleet", "fleet: kind and version")
    check(dig(fleet, "metadata", "name"), "fleet: metadata.name")
    gs = dig(fleet, "spec", "template", "spec") or {}
    ports = gs.get("ports") or []
    check(any(p.get("containerPort") == 1984 and p.get("protocol") == "UDP" and
              p.get("portPolicy") in ("Dynamic", "Static", "Passthrough", "None") and p.get("name") for p in ports),
          "fleet: UDP container port 1984 with a name and a port policy")
    counters = gs.get("counters") or {}
    for name, capacity in (("players", 1024), ("rooms", 128)):
        c = counters.get(name) or {}
        check(c.get("capacity") == capacity and c.get("count") == 0, f"fleet: Counter {name} declared")
    check(isinstance(dig(gs, "health", "periodSeconds"), int), "fleet: health checking")
    pod = dig(gs, "template", "spec") or {}
    containers = pod.get("containers") or []
    check(len(containers) == 1 and containers[0].get("image") and containers[0].get("name"), "fleet: one container")
    args = containers[0].get("args", []) if containers else []
    check("--agones" in args and "--drain" in args, "fleet: the server runs with --agones and --drain")
    if "--drain" in args:
        drain = int(args[args.index("--drain") + 1])
        check(pod.get("terminationGracePeriodSeconds", 30) > drain, "fleet: the grace period outlasts the drain")
    mounts = {m["name"]: m["mountPath"] for m in containers[0].get("volumeMounts", [])} if containers else {}
    volumes = {v["name"]: v for v in pod.get("volumes", [])}
    check(mounts.get("settings", "").endswith("/settings") and "configMap" in volumes.get("settings", {}),
          "fleet: the settings come from the ConfigMap")
    check(mounts.get("data") == os.path.dirname(mounts.get("settings", "")), "fleet: settings/ inside the data root")

    # The ConfigMap the Fleet mounts.
    cm = load_yaml(os.path.join(deploy, "agones", "configmap.yaml"))
    check(cm.get("apiVersion") == "v1" and cm.get("kind") == "ConfigMap", "configmap: kind and version")
    check(dig(cm, "metadata", "name") == dig(volumes.get("settings", {}), "configMap", "name"),
          "configmap: the name the Fleet mounts")
    data = cm.get("data") or {}
    server_config = data.get("server.config", "")
    check(server_config.split("\n")[0].strip() == "1984", "configmap: server.config listens on the container port")
    with open(os.path.join(source, "packaging", "example", "settings", "limits.conf")) as f:
        known = set(re.findall(r"^# ([a-z_]+) = ", f.read(), re.M))
    for line in data.get("limits.conf", "\n").splitlines():
        m = re.match(r"^(?:# )?([a-z_]+) = \S+", line)
        if m:
            check(m.group(1) in known, f"configmap: limits.conf: unknown limit {m.group(1)}")
        else:
            check(line == "" or line.startswith("#"), f"configmap: limits.conf: {line!r}")

    # The FleetAutoscaler.
    fas = load_yaml(os.path.join(deploy, "agones", "fleetautoscaler.yaml"))
    check(fas.get("apiVersion") == "autoscaling.agones.dev/v1" and fas.get("kind") == "FleetAutoscaler",
          "autoscaler: kind and version")
    check(dig(fas, "spec", "fleetName") == dig(fleet, "metadata", "name"), "autoscaler: the fleet's name")
    policy = dig(fas, "spec", "policy") or {}
    if policy.get("type") == "Counter":
        c = policy.get("counter") or {}
        check(c.get("key") in counters and c.get("bufferSize") and c.get("maxCapacity"),
              "autoscaler: a declared Counter with a buffer and a maximum")
    else:
        check(policy.get("type") == "Buffer" and dig(policy, "buffer", "bufferSize"), "autoscaler: a buffer policy")

    # The image.
    with open(os.path.join(deploy, "Dockerfile")) as f:
        dockerfile = f.read()
    check(re.search(r"^FROM debian:\S+-slim$", dockerfile, re.M), "Dockerfile: Debian slim")
    check(re.search(r"^COPY build/lockstep-server_\*\.deb ", dockerfile, re.M), "Dockerfile: the project's package")
    user = re.findall(r"^USER (\S+)", dockerfile, re.M)
    check(user and not user[-1].startswith(("root", "0")), "Dockerfile: a user other than root")
    check(re.search(r"^VOLUME /var/lib/lockstep-server$", dockerfile, re.M), "Dockerfile: the data root on a volume")
    check(re.search(r"^HEALTHCHECK .*\n?.*/healthz", dockerfile, re.M), "Dockerfile: HEALTHCHECK on /healthz")
    entry = os.path.join(deploy, "docker-entrypoint.sh")
    check(os.access(entry, os.X_OK), "the image's entry point is executable")

    # The alert rules (promtool checks them further where it is installed).
    rules = load_yaml(os.path.join(deploy, "prometheus", "alerts.yml"))
    alerts = set()
    for group in rules.get("groups", []):
        for rule in group.get("rules", []):
            check(rule.get("alert") and rule.get("expr"), f"rules: {rule}")
            alerts.add(rule.get("alert"))
            check_expression(f"rule {rule.get('alert')}", str(rule.get("expr", "")), exported)
    for wanted in ("LockstepLoopStuck", "LockstepDesyncsRising", "LockstepLimitsFiring", "LockstepDiskWritesFailing"):
        check(wanted in alerts, f"rules: {wanted}")

    # The dashboard.
    with open(os.path.join(deploy, "grafana", "lockstep.json")) as f:
        dashboard = json.load(f)
    titles = set()
    for panel in dashboard.get("panels", []):
        titles.add(panel.get("title"))
        check(panel.get("targets"), f"dashboard: panel {panel.get('title')} has queries")
        for target in panel.get("targets", []):
            check_expression(f"panel {panel.get('title')}", target.get("expr", ""), exported)
    for wanted in ("Players", "Rooms", "Matches running", "Relay rate", "Loop turn times", "Limits fired",
                   "Storage queue"):
        check(wanted in titles, f"dashboard: panel {wanted}")
    for variable in dashboard.get("templating", {}).get("list", []):
        query = variable.get("definition")
        if query:
            check_expression(f"variable {variable.get('name')}", query, exported)

    for f in failures:
        print("FAILED:", f)
    print(f"{len(exported)} metrics exported; {len(failures)} problems")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
