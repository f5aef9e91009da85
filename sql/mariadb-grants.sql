-- Accounts of least privilege for libeas on MariaDB. Fill in the placeholders in a copy that nobody
-- else can read, then run that as an administrator of the server:
--
--   install -m 600 mariadb-grants.sql /root/eas-grants.sql
--   editor /root/eas-grants.sql
--   mariadb < /root/eas-grants.sql && rm /root/eas-grants.sql
--
-- Passwords belong into an editor: a command line can be read by every user of the machine.
--
--   @DATABASE@            the database that holds the two tables
--   @HOSTS@               where the accounts may connect from, as in CREATE USER: a host, an
--                         address pattern such as 10.1.0.%, or localhost
--   @SCHEDULER_PASSWORD@  password of eas_scheduler; it goes into the DSN of the scheduler's hosts
--   @NODE_PASSWORD@       password of eas_node; it goes into the DSN of the compute nodes
--   @ADMIN_PASSWORD@      password of eas_admin; it goes into the DSN of whoever runs easctl

-- The scheduler's daemon reads coefficients, and stores, reads and removes tags. It changes no row
-- in place, creates nothing and sees no other database.
CREATE USER 'eas_scheduler'@'@HOSTS@' IDENTIFIED BY '@SCHEDULER_PASSWORD@';
GRANT SELECT ON `@DATABASE@`.TQVN_EnergyCoEfficients TO 'eas_scheduler'@'@HOSTS@';
GRANT SELECT, INSERT, DELETE ON `@DATABASE@`.TQVN_EnergyPolicyTag TO 'eas_scheduler'@'@HOSTS@';

-- A compute node under the Slurm plugin, or under easctl job, reads coefficients and tags and adds
-- tags. Whoever takes a node over can remove none.
CREATE USER 'eas_node'@'@HOSTS@' IDENTIFIED BY '@NODE_PASSWORD@';
GRANT SELECT ON `@DATABASE@`.TQVN_EnergyCoEfficients TO 'eas_node'@'@HOSTS@';
GRANT SELECT, INSERT ON `@DATABASE@`.TQVN_EnergyPolicyTag TO 'eas_node'@'@HOSTS@';

-- The administrator's tool also imports and replaces coefficients.
CREATE USER 'eas_admin'@'@HOSTS@' IDENTIFIED BY '@ADMIN_PASSWORD@';
GRANT SELECT, INSERT, UPDATE, DELETE ON `@DATABASE@`.TQVN_EnergyCoEfficients TO 'eas_admin'@'@HOSTS@';
GRANT SELECT, INSERT, UPDATE, DELETE ON `@DATABASE@`.TQVN_EnergyPolicyTag TO 'eas_admin'@'@HOSTS@';
