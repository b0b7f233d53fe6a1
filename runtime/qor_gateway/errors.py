"""The one error type the HTTP layer turns into a JSON answer."""


class ApiError(Exception):
    """A refused request: HTTP status, a stable code for programs and a message for people."""

    def __init__(self, status: int, code: str, message: str):
        super().__init__(message)
        self.status = status
        self.code = code
        self.message = message
