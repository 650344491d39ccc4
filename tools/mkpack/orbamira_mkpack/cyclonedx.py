"""Writes bills of materials in the form of CycloneDX 1.6 (JSON). The same content gives the same bytes."""

import json
import uuid


def library(name, version, supplier):
    """The component of a library."""
    return {
        "type": "library",
        "bom-ref": f"{name}@{version}",
        "supplier": {"name": supplier},
        "name": name,
        "version": version,
    }


def sha256(digest):
    """The hashes of a component."""
    return [{"alg": "SHA-256", "content": digest}]


def document(subject, components, dependencies, time=None):
    """The bill as text. `subject` is the component that it is about, `dependencies` maps references to sets of them."""
    metadata = {"timestamp": time} if time else {}
    content = {
        "$schema": "http://cyclonedx.org/schema/bom-1.6.schema.json",
        "bomFormat": "CycloneDX",
        "specVersion": "1.6",
        "version": 1,
        "metadata": {**metadata, "component": subject},
        "components": components,
        "dependencies": [{"ref": ref, "dependsOn": sorted(needed)} for ref, needed in dependencies.items()],
    }
    serial = uuid.uuid5(uuid.NAMESPACE_URL, json.dumps(content, sort_keys=True))
    return json.dumps(content | {"serialNumber": f"urn:uuid:{serial}"}, indent=2) + "\n"
