-- The two tables of libeas on SQLite (3.37 or later), for a single machine:
--
--   sqlite3 /var/lib/eas/easdb.sqlite < sqlite.sql
--
-- The columns stand in the order in which the library reads them: "select *" is read by position.
--
-- Each primary key is the table itself (WITHOUT ROWID), so rows come back in the key's order: those
-- of a tag in ascending frequency. A second row for the same tag and frequency is refused, which is
-- what keeps two schedulers from both storing the same tag.
--
-- SQLite compares text byte for byte, case and trailing blanks included. It has no lengths of its
-- own; the checks refuse what the library could not read back whole. It reads a double-quoted word
-- as a column where a column has that name, and the library sends names in double quotes: a tag,
-- user or cluster must not be called like a column of these tables (user_name, job_id, ...).
--
-- There are no accounts: who may write the file and its folder may change every row. Let both
-- belong to the account of the scheduler's daemon.

CREATE TABLE TQVN_EnergyCoEfficients (
    frequency           INTEGER NOT NULL,
    default_frequency   INTEGER NOT NULL,
    cluster_name        TEXT    NOT NULL CHECK (length(CAST(cluster_name AS BLOB)) <= 40),
    factor_a            REAL    NOT NULL,
    factor_b            REAL    NOT NULL,
    factor_c            REAL    NOT NULL,
    factor_d            REAL    NOT NULL,
    factor_e            REAL    NOT NULL,
    factor_f            REAL    NOT NULL,
    PRIMARY KEY (cluster_name, default_frequency, frequency)
) STRICT, WITHOUT ROWID;

-- The key serves every request that names a cluster; the index serves those for one tag of whatever
-- user, and those for whatever cluster.
CREATE TABLE TQVN_EnergyPolicyTag (
    energy_tag_name     TEXT    NOT NULL CHECK (length(CAST(energy_tag_name AS BLOB)) <= 256),
    user_name           TEXT    NOT NULL CHECK (length(CAST(user_name AS BLOB)) <= 256),
    default_frequency   INTEGER NOT NULL,
    cluster_name        TEXT    NOT NULL CHECK (length(CAST(cluster_name AS BLOB)) <= 40),
    frequency           INTEGER NOT NULL,
    job_id              TEXT    NOT NULL CHECK (length(CAST(job_id AS BLOB)) <= 1024),
    predict_power       REAL    NOT NULL,
    energy_saving_pct   REAL    NOT NULL,
    predict_elapse_time INTEGER NOT NULL,
    perf_degrad_pct     REAL    NOT NULL,
    create_time         INTEGER NOT NULL,
    PRIMARY KEY (cluster_name, default_frequency, user_name, energy_tag_name, frequency)
) STRICT, WITHOUT ROWID;

CREATE INDEX TQVN_EnergyPolicyTag_by_tag
    ON TQVN_EnergyPolicyTag (default_frequency, cluster_name, energy_tag_name, user_name, frequency);
