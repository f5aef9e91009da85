-- The account of the proxy's health check: it may log in from the proxy's machine and ask for the
-- server's state, nothing more. It has no password, since the check cannot give one.
CREATE USER 'haproxy'@'@HOSTS@' WITH MAX_USER_CONNECTIONS 10;
