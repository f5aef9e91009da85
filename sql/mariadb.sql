-- The two tables of libeas on MariaDB (10.6 or later), alone or in a Galera cluster:
--
--   mariadb DATABASE < mariadb.sql
--
-- The columns stand in the order in which the library reads them: "select *" is read by position.
--
-- InnoDB keeps a table in the order of its primary key, so rows come back in that order: those of a
-- tag in ascending frequency. A second row for the same tag and frequency is refused, which is what
-- keeps two schedulers from both storing the same tag.
--
-- Names are bytes (VARBINARY): compared byte for byte, case and trailing blanks included, in
-- whatever encoding a site's names are; no conversion can change or refuse one. The lengths are
-- those of the library, in bytes; in strict mode a longer text is refused, not cut.

CREATE TABLE TQVN_EnergyCoEfficients (
    frequency           INT             NOT NULL,
    default_frequency   INT             NOT NULL,
    cluster_name        VARBINARY(40)   NOT NULL,
    factor_a            DOUBLE          NOT NULL,
    factor_b            DOUBLE          NOT NULL,
    factor_c            DOUBLE          NOT NULL,
    factor_d            DOUBLE          NOT NULL,
    factor_e            DOUBLE          NOT NULL,
    factor_f            DOUBLE          NOT NULL,
    PRIMARY KEY (cluster_name, default_frequency, frequency)
) ENGINE = InnoDB;

-- The key serves every request that names a cluster; the index serves those for one tag of whatever
-- user, and those for whatever cluster.
CREATE TABLE TQVN_EnergyPolicyTag (
    energy_tag_name     VARBINARY(256)  NOT NULL,
    user_name           VARBINARY(256)  NOT NULL,
    default_frequency   INT             NOT NULL,
    cluster_name        VARBINARY(40)   NOT NULL,
    frequency           INT             NOT NULL,
    job_id              VARBINARY(1024) NOT NULL,
    predict_power       DOUBLE          NOT NULL,
    energy_saving_pct   DOUBLE          NOT NULL,
    predict_elapse_time INT             NOT NULL,
    perf_degrad_pct     DOUBLE          NOT NULL,
    create_time         BIGINT          NOT NULL,
    PRIMARY KEY (cluster_name, default_frequency, user_name, energy_tag_name, frequency),
    KEY TQVN_EnergyPolicyTag_by_tag
        (default_frequency, cluster_name, energy_tag_name, user_name, frequency)
) ENGINE = InnoDB;
