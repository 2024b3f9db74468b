"""What script/sandbox is made of.

kernel    the system calls and tables that Python has no name for
root      the file tree that a sandboxed command sees
keeper    sets up the namespaces, runs the command in them, passes signals and status
guardian  outlives everybody else and takes away whatever the sandbox made
loops     which loop devices belong to a sandbox
mappings  which device-mapper devices do, and how they go
cover     programs laid over losetup, dmsetup and exportfs, whose effect no namespace contains
"""
