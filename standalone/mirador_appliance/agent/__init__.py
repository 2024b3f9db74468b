"""The agent: the program that the daemon runs, one process for each session with a hypervisor.

It takes requests on standard input and answers on standard output, a line each; see framing. Everything that it needs
to know it reads from the appliance's database at each call, so it works beside a running controller and without one.

    framing    requests, replies and errors as lines
    machines   the VMs and hypervisors as the controller knows them
    faults     faults on demand
    journal    what was asked and how it went
    session    whom the agent speaks for
    following  waits until controller and daemon have taken in a change
    removal    removals, also such that nobody waits for
    datastore_paths   paths on the datastores, and the way to them
    file_entries      a file as it is told
    file_operations   files on the datastores
    methods    what can be asked
    program    the process
"""
