"""What verifying finds."""

import dataclasses


@dataclasses.dataclass(frozen=True)
class Finding:
    """Something wrong, and what to do about it. What it is about is a file's or a pack's name."""

    about: str
    problem: str
    remedy: str


@dataclasses.dataclass
class Report:
    """The packs that were looked at, by name; what is wrong; and what is not wrong but worth knowing."""

    packs: dict = dataclasses.field(default_factory=dict)
    findings: list = dataclasses.field(default_factory=list)
    notes: list = dataclasses.field(default_factory=list)

    def found(self, about, problem, remedy):
        self.findings.append(Finding(about, problem, remedy))

    def names_with_findings(self):
        return {finding.about for finding in self.findings}
