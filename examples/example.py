#!/usr/bin/env python3
"""Prints the services that run on fewer instances than they should: those with a disabled instance.

Run:  KEYVIEW_REGISTRY=lmdb:/var/lib/keyview ./example.py
"""
import sys

import keyview


def main() -> int:
    try:
        with keyview.open() as kv:
            for name in kv.databases():
                for service in kv.database(name).services:
                    instances = zip(service.preferred + service.available,
                                    service.preferred_enabled + service.available_enabled)
                    disabled = [one for one, enabled in instances if not enabled]
                    if disabled:
                        print(f"{name}: {service.name} without {', '.join(map(str, disabled))}")
    except keyview.Error as error:
        print(f"example: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
