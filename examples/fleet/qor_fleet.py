"""What agent and command of the example share: topics, orders and their signatures, the connection.

An order is a line with a signature (Ed25519, in base64) and then what is signed, a JSON object:

    group     the group of devices that it is for
    serial    rises with every order of the group; a device follows no older one than its last
    rollout   the name of the rollout
    percent   how many of the devices take part, from 0 to 100
    sha256    the policy for those that take part; it stands in a topic of its own
    former    the policy for the others; null where there is none, and they keep what they have
    spread    within how many seconds the devices begin, each at a time of its own
"""

import base64
import hashlib
import json
import os
import re
import ssl
import subprocess
import tempfile

import paho.mqtt.client as mqtt

MAX_ORDER, MAX_REPORT, MAX_POLICY = 4096, 8192, 1 << 20  # bytes
NAME = re.compile(r"[A-Za-z0-9._-]{1,64}\Z")
SHA256 = re.compile(r"[0-9a-f]{64}\Z")


def topic(group, *levels):
    return "/".join(("qor", group) + levels)


def sha256(data):
    return hashlib.sha256(data).hexdigest()


def takes_part(order, device):
    """Whoever takes part at one percentage does so at every higher one of the same rollout."""
    words = "%s %s" % (order["rollout"], device)
    place = int.from_bytes(hashlib.sha256(words.encode()).digest()[:6], "big") * 100 / 2**48
    return place < order["percent"]


def wanted(order, device):
    """The SHA-256 of the policy that the device should have; None: the one that it has."""
    return order["sha256" if takes_part(order, device) else "former"]


def openssl(text, signature, *arguments):
    """Has openssl sign the text, or check its signature; gives that back."""
    with tempfile.TemporaryDirectory() as folder:
        files = [os.path.join(folder, name) for name in ("text", "signature")]
        for name, data in zip(files, (text, signature)):
            with open(name, "wb") as file:
                file.write(data)
        subprocess.run(["openssl", "pkeyutl", "-rawin", "-in", files[0],
                        *(files[1] if word == "SIGNATURE" else word for word in arguments)],
                       check=True, timeout=60, stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        with open(files[1], "rb") as file:
            return file.read()


def signed(order, key):
    text = json.dumps(order).encode()
    try:
        signature = openssl(text, b"", "-sign", "-inkey", key, "-out", "SIGNATURE")
    except subprocess.CalledProcessError as error:
        raise ValueError("no signature with %s: %s" % (key, error.stderr.decode().strip())) from None
    return base64.b64encode(signature) + b"\n" + text


def verified(message, key):
    """What an order says. ValueError where it is not signed with the key's other half, or no order."""
    if len(message) > MAX_ORDER:
        raise ValueError("it has %d bytes" % len(message))
    signature, _, text = message.partition(b"\n")
    try:
        openssl(text, base64.b64decode(signature, validate=True),
                "-verify", "-pubin", "-inkey", key, "-sigfile", "SIGNATURE")
    except (ValueError, subprocess.SubprocessError):
        raise ValueError("its signature is not that of this fleet's key") from None
    try:
        order = json.loads(text)
        right = (NAME.match(order["group"]) and NAME.match(order["rollout"])
                 and type(order["serial"]) is int and order["serial"] > 0
                 and type(order["percent"]) in (int, float) and 0 <= order["percent"] <= 100
                 and type(order["spread"]) is int and 0 <= order["spread"] <= 86400
                 and SHA256.match(order["sha256"])
                 and (order["former"] is None or SHA256.match(order["former"])))
    except (ValueError, KeyError, TypeError, RecursionError):
        right = False
    if not right:
        raise ValueError("it is signed, and no order that this program knows")
    return order


def connection(name, keys):
    """A client of the broker. The folder has ca.pem and what this end shows: own.pem, own.key."""
    versions = getattr(mqtt, "CallbackAPIVersion", None)  # since paho 2
    client = mqtt.Client(*([versions.VERSION2] if versions else []), client_id=name)
    files = [os.path.join(keys, name) for name in ("ca.pem", "own.pem", "own.key")]
    for file in files:
        open(file, "rb").close()  # an error names the file, which those of ssl do not
    context = ssl.create_default_context(cafile=files[0])
    context.minimum_version = ssl.TLSVersion.TLSv1_2
    context.load_cert_chain(*files[1:])
    client.tls_set_context(context)
    return client


def address(text):
    """HOST or HOST:PORT; the port is None where it is not said."""
    host, _, port = text.partition(":")
    return host, int(port) if port else None
