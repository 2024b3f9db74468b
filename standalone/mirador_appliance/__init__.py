"""The embedded appliance: what the export daemon needs around it, for a machine that has nothing else.

Standard library only. Each module may use those above it:

    places, texts, faults_told      fixed paths, JSON texts of any bytes, one-line errors
    files                           opening files that others made
    settings, uuids                 the registry's keys; forms of a uuid
    vmdk, vmsd                      disk descriptors and chains, snapshot databases
    datastores                      the directories served and their places below the volume roots
    hypervisor                      snapshots made and removed as the hypervisor does, a guest that writes
    snapshot_names, busy, bell      whose a snapshot is; whether a task works on a VM; a call to look at once
    facts, discovery                what is known of a VM; its configuration file, read through mirador-inspect
    tree, watch, synthetic          following a datastore; made-up VMs
    worker                          the process "datastore_fs": watches, tells what it finds
    store                           the SQLite database
    records, inventory              the documents that the daemon reads, and the VMs behind them
    choices                         what people and the daemon decide
    alerts, statistics, generation  what the daemon posts, and the token it waits for
    controller                      all of the state behind one lock
    objects, mischief, web          the REST objects, faults on demand, the HTTP server
    worker_link                     starts the worker and takes in what it tells
    agent                           the program that the daemon runs for snapshots; its faults on demand
    installer, state                programs at fixed places, the state directory
    overview, status                the snapshots as they stand, all that is shown
    snapshot_commands, snapshot_arguments  the commands about snapshots, guests and faults
    serving, commands, command_line the commands
"""
