"""The error with which a job ends."""


class Problem(Exception):
    """Ends the job with one line; status is its exit status: 2 if it cannot run here, else 1."""

    def __init__(self, text, status=1):
        super().__init__(text)
        self.status = status
