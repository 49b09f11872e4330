"""The benchmark programs: what each measures, what has to be built for it, and how it is started."""

import dataclasses

MEMORY_GROUPS = ("memory_pipeline", "cost_per_record", "memory_held", "intake_at_limit", "latency", "log_line_off")
STORAGE_GROUPS = ("storage_insert", "storage_insert_delete", "storage_senders", "storage_save", "storage_load",
                  "storage_drain")
PEER_GROUPS = ("end_to_end_memory", "end_to_end_disk", "memory_backlog")
LINK_GROUPS = ("link_rate", "link_outage")


@dataclasses.dataclass(frozen=True)
class Program:
    name: str  # also its place: bin/NAME of the build, or bench/NAME for a script
    groups: tuple
    targets: tuple  # of CMake
    script: bool = False
    arguments: tuple = ()
    # Whether it takes --quick, --directory and names of groups, as the benchmark programs do.
    common_options: bool = True

    def path(self, root, build):
        return root / "bench" / self.name if self.script else build / "bin" / self.name

    def command(self, root, build, quick, only, directory):
        command = [str(self.path(root, build)), *self.arguments]
        if self.script:
            command += ["--build", str(build)]
        if self.common_options:
            command += ["--quick"] if quick else []
            command += ["--directory", str(directory)] if directory else []
            command += [group for group in self.groups if group in only]
        return command


PROGRAMS = (
    Program("memory_bench", MEMORY_GROUPS, ("memory_bench",)),
    Program("storage_bench", STORAGE_GROUPS, ("storage_bench",)),
    Program("peers/run", PEER_GROUPS, ("qmhost", "qmlogcache", "qmsend", "peer_loader"), script=True),
    Program("links/run", LINK_GROUPS, ("qmhost", "qmlogcache", "qmsend", "peer_loader"), script=True),
    Program("link_fleet", ("fleet",), ("link_fleet",)),
    Program("instructions/count", ("instructions",), ("instructions_bench",), script=True,
            arguments=("--json-lines",), common_options=False),
)
GROUPS = tuple(group for program in PROGRAMS for group in program.groups)
