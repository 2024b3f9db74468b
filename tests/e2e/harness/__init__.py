"""What the end-to-end tests share.

place      where a daemon may run: a sandbox, or a throw-away virtual machine
tools      programs of the build, other programs, waiting, extended attributes
disks      datastores and the disks on them, made and read by qemu-img
daemon     a running daemon and its shadow tree
census     what stands on the machine: loop devices, mappings, mounts, files, processes
compare    an exported file against its reference
case       the test case that starts a daemon and checks what it leaves behind
machines   virtual machines on a datastore
appliance  the embedded appliance, which is the daemon's controller
guests     VMs that write to their disks all the time
inventory  the test case whose daemon follows an appliance
snapshots  snapshots on the datastore, and faults of the agent
snapshot_case
           the test case whose daemon takes them
cbt_case   the test case whose VMs' changes are tracked
cbt_load   the same on a datastore that may be slow
slow_file  a file that answers slowly
clients    the tools that people back up with
watcher    what shows of a secret in processes and temporary files
"""
