"""What the registry tells: records of services, and changes of them."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any

from .names import parse_locator


@dataclass(frozen=True)
class Record:
    """One registration of a service. `id` is new with each registration, also of the same service."""

    path: str
    type: str = "pex"
    versions: tuple[str, ...] = ()
    locators: tuple[str, ...] = ()
    id: str = ""
    metainfo: dict[str, Any] = field(default_factory=dict)
    formats: tuple[str, ...] = ("application/json",)
    scope: tuple[str, ...] = ()

    @property
    def provider(self) -> str:
        """The name of the process that provides the service, else that of its first locator; empty if neither says it."""
        provider = self.metainfo.get("provider")
        if isinstance(provider, str):
            return provider
        locator = parse_locator(self.locators[0]) if self.locators else None
        return locator.process if locator else ""


@dataclass(frozen=True)
class Change:
    """`record` was "added" or "removed"; a changed one is removed, then added."""

    kind: str
    record: Record


def from_json(element: dict[str, Any]) -> Record:
    """The record that the registry sent."""
    return Record(
        element["path"],
        element["type"],
        tuple(element.get("versions") or ()),
        tuple(element.get("locators") or ()),
        element.get("id") or "",
        element.get("metainfo") or {},
        tuple(element.get("serializationFormats") or ("application/json",)),
        tuple(element.get("scope") or ()),
    )


def to_json(record: Record) -> dict[str, Any]:
    """The record as the registry takes it; it draws the id."""
    element: dict[str, Any] = {
        "path": record.path,
        "type": record.type,
        "versions": list(record.versions),
        "locators": list(record.locators),
        "metainfo": record.metainfo,
        "serializationFormats": list(record.formats),
    }
    if record.scope:
        element["scope"] = list(record.scope)
    return element
