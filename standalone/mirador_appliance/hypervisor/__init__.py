"""Snapshots of virtual machines on a datastore, made and removed as the hypervisor does it."""
