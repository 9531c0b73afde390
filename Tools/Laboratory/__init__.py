"""Runs the system in private, for the demonstration, the end-to-end tests and the benchmarks.

    problem         the error with which a job ends
    lines           what a program writes, as it arrives
    program         a child process that ends with us, and system programs
    namespace       a network namespace and the processes in it
    network         two namespaces joined by a cable, their addresses and their certificate
    private_etc     a view of /etc in which some entries are replaced
    ostravel        starts the three programs of the system and waits until they are ready

Modules use only those above them in this list. Needs root and Linux, and no package besides Python.
"""
