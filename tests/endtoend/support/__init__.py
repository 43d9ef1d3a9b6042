"""What the end-to-end tests share: a repository to serve, servers, and the command itself."""
