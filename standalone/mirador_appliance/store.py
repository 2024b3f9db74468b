"""The SQLite database: all of the appliance's state.

Texts from outside are stored as bytes, records as JSON. Several processes may have it open (the commands beside the
controller); only the controller writes what the daemon posts and what discovery finds. A Store serves any thread, one
call at a time. The file is readable by its owner alone, since it holds the hypervisor's password.
"""

import contextlib
import os
import pathlib
import sqlite3
import threading
from collections.abc import Iterable, Iterator
from typing import Any

from .faults_told import Refused, reason
from .texts import pack, to_bytes, to_text, unpack

_VERSION = 1

_SCHEMA = """
CREATE TABLE meta (key TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;
CREATE TABLE setting (key TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;
CREATE TABLE folder (uuid TEXT PRIMARY KEY, name BLOB NOT NULL UNIQUE) WITHOUT ROWID;
CREATE TABLE datastore (name BLOB PRIMARY KEY, record BLOB NOT NULL) WITHOUT ROWID;
CREATE TABLE vm (datastore BLOB NOT NULL, vmx_path BLOB NOT NULL, uuid TEXT NOT NULL, changed INTEGER NOT NULL,
                 facts BLOB NOT NULL, PRIMARY KEY (datastore, vmx_path));
CREATE TABLE choice (uuid TEXT NOT NULL, key TEXT NOT NULL, value BLOB NOT NULL, PRIMARY KEY (uuid, key)) WITHOUT ROWID;
CREATE TABLE disk_note (vhost_uuid TEXT NOT NULL, name BLOB NOT NULL, fields BLOB NOT NULL,
                        PRIMARY KEY (vhost_uuid, name)) WITHOUT ROWID;
CREATE TABLE alert (alert_id BLOB NOT NULL, object_id BLOB NOT NULL, node_uuid BLOB NOT NULL, record BLOB NOT NULL,
                    PRIMARY KEY (alert_id, object_id, node_uuid)) WITHOUT ROWID;
CREATE TABLE statistic (path BLOB PRIMARY KEY, record BLOB NOT NULL) WITHOUT ROWID;
CREATE TABLE event (id INTEGER PRIMARY KEY, time INTEGER NOT NULL, record BLOB NOT NULL);
"""


class Store:
    """An open database."""

    def __init__(self, path: pathlib.Path, create: bool) -> None:
        """Opens the database in a directory of its own; with `create`, makes what is missing. Refused."""
        self.path = path
        self._lock = threading.RLock()
        try:
            if create:
                path.parent.mkdir(parents=True, exist_ok=True, mode=0o700)
                os.close(os.open(path, os.O_CREAT | os.O_RDWR | os.O_CLOEXEC, 0o600))
                os.chmod(path, 0o600)
            elif not path.exists():
                raise Refused(f"{path}: no such database; \"serve\" makes it")
            self._connection = sqlite3.connect(path, timeout=10, isolation_level=None, check_same_thread=False)
            self._prepare(create)
        except OSError as error:
            raise Refused(f"{path}: {reason(error)}") from error
        except sqlite3.Error as error:
            raise Refused(f"{path}: {error}") from error

    def _prepare(self, create: bool) -> None:
        self._connection.execute("PRAGMA journal_mode=WAL")
        self._connection.execute("PRAGMA synchronous=NORMAL")
        if create and self._version() == 0:
            with self.transaction():
                if self._version() == 0:
                    for statement in _SCHEMA.split(";\n"):
                        self._connection.execute(statement)
                    self._connection.execute(f"PRAGMA user_version={_VERSION}")
        if self._version() != _VERSION:
            raise Refused(f"{self.path}: a database of version {self._version()}; this program has {_VERSION}")

    def _version(self) -> int:
        return self._rows("PRAGMA user_version")[0][0]

    def close(self) -> None:
        with self._lock:
            self._connection.close()

    @contextlib.contextmanager
    def transaction(self) -> Iterator[None]:
        """All writes inside become one, or none when it is left by an exception. May be nested."""
        with self._lock:
            if self._connection.in_transaction:
                yield
                return
            self._connection.execute("BEGIN IMMEDIATE")
            try:
                yield
                self._connection.execute("COMMIT")
            except BaseException:
                if self._connection.in_transaction:  # some errors, as a full disk, have ended it already
                    self._connection.execute("ROLLBACK")
                raise

    def _write(self, statement: str, *values: Any) -> None:
        with self._lock:
            self._connection.execute(statement, values)

    def _write_many(self, statement: str, rows: Iterable[tuple[Any, ...]]) -> None:
        with self.transaction():
            self._connection.executemany(statement, rows)

    def _rows(self, statement: str, *values: Any) -> list[tuple[Any, ...]]:
        with self._lock:
            return self._connection.execute(statement, values).fetchall()

    def foreign_changes(self) -> int:
        """A number that differs whenever another process has written."""
        return self._rows("PRAGMA data_version")[0][0]

    # Small texts

    def meta(self, key: str, default: str = "") -> str:
        rows = self._rows("SELECT value FROM meta WHERE key = ?", key)
        return rows[0][0] if rows else default

    def set_meta(self, key: str, value: str) -> None:
        self._write("INSERT OR REPLACE INTO meta VALUES (?, ?)", key, value)

    def settings(self) -> dict[str, str]:
        return dict(self._rows("SELECT key, value FROM setting"))

    def set_setting(self, key: str, value: str) -> None:
        self._write("INSERT OR REPLACE INTO setting VALUES (?, ?)", key, value)

    # Folders, and what was chosen for a VM

    def folders(self) -> dict[str, str]:
        """uuid -> name, by name."""
        return {uuid: to_text(name) for uuid, name in self._rows("SELECT uuid, name FROM folder ORDER BY name")}

    def set_folder(self, uuid: str, name: str) -> None:
        """Makes or renames a folder. sqlite3.IntegrityError when another one has the name."""
        self._write("INSERT INTO folder VALUES (?, ?) ON CONFLICT (uuid) DO UPDATE SET name = excluded.name",
                    uuid, to_bytes(name))

    def remove_folder(self, uuid: str) -> None:
        self._write("DELETE FROM folder WHERE uuid = ?", uuid)

    def choices(self) -> dict[str, dict[str, Any]]:
        """VM uuid -> key -> value."""
        found: dict[str, dict[str, Any]] = {}
        for uuid, key, value in self._rows("SELECT uuid, key, value FROM choice"):
            found.setdefault(uuid, {})[key] = unpack(value)
        return found

    def set_choices(self, uuid: str, values: dict[str, Any]) -> None:
        """Sets what was chosen for a VM; None takes a choice back."""
        with self.transaction():
            for key, value in values.items():
                if value is None:
                    self._write("DELETE FROM choice WHERE uuid = ? AND key = ?", uuid, key)
                else:
                    self._write("INSERT OR REPLACE INTO choice VALUES (?, ?, ?)", uuid, key, pack(value))

    # What discovery found

    def datastores(self) -> dict[str, dict[str, Any]]:
        return {to_text(name): unpack(record) for name, record in self._rows("SELECT name, record FROM datastore")}

    def set_datastore(self, name: str, record: dict[str, Any]) -> None:
        self._write("INSERT OR REPLACE INTO datastore VALUES (?, ?)", to_bytes(name), pack(record))

    def remove_datastore(self, name: str) -> None:
        self._write("DELETE FROM datastore WHERE name = ?", to_bytes(name))

    def vms(self) -> list[tuple[str, int, dict[str, Any]]]:
        """(uuid, time of the last change, facts), by datastore and path."""
        rows = self._rows("SELECT uuid, changed, facts FROM vm ORDER BY datastore, vmx_path")
        return [(uuid, changed, unpack(facts)) for uuid, changed, facts in rows]

    def facts_of(self, uuid: str) -> list[dict[str, Any]]:
        """The facts of a VM; none for a uuid that no VM has."""
        return [unpack(facts) for (facts,) in self._rows("SELECT facts FROM vm WHERE uuid = ?", uuid)]

    def set_vms(self, vms: Iterable[tuple[str, int, dict[str, Any]]]) -> None:
        self._write_many("INSERT OR REPLACE INTO vm VALUES (?, ?, ?, ?, ?)",
                         ((to_bytes(facts["datastore"]), to_bytes(facts["vmx_path"]), uuid, changed, pack(facts))
                          for uuid, changed, facts in vms))

    def remove_vms(self, keys: Iterable[tuple[str, str]]) -> None:
        """keys: (datastore, vmx_path)."""
        self._write_many("DELETE FROM vm WHERE datastore = ? AND vmx_path = ?",
                         ((to_bytes(datastore), to_bytes(path)) for datastore, path in keys))

    def change_times(self) -> dict[str, int]:
        """VM uuid -> time of the last change."""
        return dict(self._rows("SELECT uuid, changed FROM vm"))

    def touch_vms(self, uuids: Iterable[str], now: int) -> None:
        """Lets VMs count as changed now, or a second after their last change."""
        self._write_many("UPDATE vm SET changed = MAX(changed + 1, ?) WHERE uuid = ?", ((now, uuid) for uuid in uuids))

    # What the daemon posts

    def disk_notes(self) -> dict[tuple[str, str], dict[str, Any]]:
        """(VM uuid, disk name) -> fields."""
        rows = self._rows("SELECT vhost_uuid, name, fields FROM disk_note ORDER BY vhost_uuid, name")
        return {(uuid, to_text(name)): unpack(fields) for uuid, name, fields in rows}

    def set_disk_note(self, uuid: str, name: str, fields: dict[str, Any]) -> None:
        self._write("INSERT OR REPLACE INTO disk_note VALUES (?, ?, ?)", uuid, to_bytes(name), pack(fields))

    def alerts(self) -> list[dict[str, Any]]:
        return [unpack(record) for (record,) in self._rows("SELECT record FROM alert ORDER BY alert_id, object_id")]

    def set_alert(self, key: tuple[str, str, str], record: dict[str, Any]) -> None:
        self._write("INSERT OR REPLACE INTO alert VALUES (?, ?, ?, ?)", *map(to_bytes, key), pack(record))

    def remove_alert(self, key: tuple[str, str, str]) -> None:
        self._write("DELETE FROM alert WHERE alert_id = ? AND object_id = ? AND node_uuid = ?", *map(to_bytes, key))

    def statistics(self) -> dict[str, dict[str, Any]]:
        """Path of an exported file -> record."""
        rows = self._rows("SELECT path, record FROM statistic ORDER BY path")
        return {to_text(path): unpack(record) for path, record in rows}

    def set_statistics(self, records: dict[str, dict[str, Any]]) -> None:
        self._write_many("INSERT OR REPLACE INTO statistic VALUES (?, ?)",
                         ((to_bytes(path), pack(record)) for path, record in records.items()))

    def add_event(self, now: int, record: dict[str, Any], keep: int = 1000) -> None:
        """Appends an event and forgets all but the last `keep`."""
        with self.transaction():
            self._write("INSERT INTO event (time, record) VALUES (?, ?)", now, pack(record))
            self._write("DELETE FROM event WHERE id <= (SELECT MAX(id) FROM event) - ?", keep)

    def events(self) -> list[dict[str, Any]]:
        """Oldest first, each with its "time"."""
        rows = self._rows("SELECT time, record FROM event ORDER BY id")
        return [{"time": when, **unpack(record)} for when, record in rows]
